#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "quarrystone/Export.h"

namespace qs {

class QS_EXPORT Crypto {
 public:
  virtual ~Crypto() = default;
  virtual std::array<std::uint8_t, 20> sha1(std::string_view data) = 0;
};

// Text services the core cannot do portably by itself.
class QS_EXPORT Text {
 public:
  virtual ~Text() = default;
  // Byte offsets where extended grapheme clusters (composed character
  // sequences) start in valid or invalid UTF-8; always begins with 0 for
  // non-empty text and never includes text.size().
  virtual std::vector<std::size_t> graphemeStarts(std::string_view utf8) = 0;
};

}  // namespace qs

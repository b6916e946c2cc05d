// Base64 decoding of arbitrary text, in both modes. Whatever decodes must
// encode to text that decodes to the same bytes, and any bytes must survive
// encoding and decoding.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "crypto/Base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (bool ignore : {false, true}) {
    auto decoded = qs::base64Decode(text, ignore);
    if (decoded && qs::base64Decode(qs::base64Encode(*decoded), false) != decoded) {
      __builtin_trap();
    }
  }
  std::span<const std::uint8_t> bytes(data, size);
  auto back = qs::base64Decode(qs::base64Encode(bytes), false);
  if (!back || !std::equal(back->begin(), back->end(), bytes.begin(), bytes.end())) {
    __builtin_trap();
  }
  return 0;
}

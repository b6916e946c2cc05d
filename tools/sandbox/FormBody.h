#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "Parsed.h"

namespace qs::sandbox {

// The collector request body: "key=value" pairs joined by "&". Values are not
// escaped (the base64 payload carries "+", "/" and "=" raw), so each pair is
// split at its first "=" and nothing is decoded.
struct FormBody {
  static constexpr std::size_t kMaxFields = 32;
  static constexpr std::size_t kMaxKeyLength = 64;

  std::map<std::string, std::string, std::less<>> fields;

  // Empty segments ("a=1&&b=2") are skipped. A pair without "=", an empty or
  // over-long key, a repeated key or too many pairs make the body malformed.
  static Parsed<FormBody> parse(std::string_view body);

  // The value of key, or empty when absent.
  std::string_view get(std::string_view key) const;
  bool has(std::string_view key) const { return fields.find(key) != fields.end(); }
};

}  // namespace qs::sandbox

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "quarrystone/Value.h"

namespace qs::sandbox {

// Encodings, digests and random identifiers the sandbox needs. Stateless;
// every function is safe to call from any thread.
class SandboxCodec {
 public:
  // Lower-case hex HMAC-SHA256 of message under key.
  static std::string hmacSha256Hex(std::string_view key, std::string_view message);
  // Comparison whose time does not depend on where the texts differ.
  static bool constantTimeEquals(std::string_view a, std::string_view b);

  // count random bytes as 2*count lower-case hex digits.
  static std::string randomHex(std::size_t count);
  // A random lower-case version-4 UUID text (36 characters).
  static std::string uuid4();

  // Standard base64 with "=" padding; decoding is strict (no whitespace).
  static std::string base64Encode(std::string_view bytes);
  static std::optional<std::string> base64Decode(std::string_view text);
  // URL-safe alphabet ("-", "_") without padding, for tokens.
  static std::string base64UrlEncode(std::string_view bytes);
  static std::optional<std::string> base64UrlDecode(std::string_view text);

  // Parses JSON text that came from outside. Refuses text nested deeper than
  // maxDepth (so that logging it cannot exhaust the stack) and anything the
  // parser rejects; never throws.
  static std::optional<Value> parseJson(std::string_view text, std::size_t maxDepth = 32);
  // Compact JSON; invalid UTF-8 inside strings is replaced, never thrown.
  static std::string dumpJson(const Value& value);
};

}  // namespace qs::sandbox

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "quarrystone/Value.h"

namespace qs {

// Standard base64 (alphabet with "+" and "/", "=" padding), no line breaks.
// Pure functions; safe from any thread.
std::string base64Encode(std::span<const std::uint8_t> bytes);
std::string base64Encode(std::string_view bytes);

// Decodes padded standard base64. With `ignoreUnknownCharacters` every
// character outside the alphabet and "=" is skipped (line breaks, spaces,
// anything else); without it such a character fails the decoding. Fails
// (nullopt) when the remaining text is not a whole number of 4-character
// groups, or when "=" appears anywhere but at the end of the last group.
std::optional<Bytes> base64Decode(std::string_view text, bool ignoreUnknownCharacters);

}  // namespace qs

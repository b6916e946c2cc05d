#include "crypto/Base64.h"

#include <array>

namespace qs {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::uint8_t kPad = 64;
constexpr std::uint8_t kUnknown = 255;

constexpr std::array<std::uint8_t, 256> makeDecodeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& entry : table) entry = kUnknown;
  for (std::uint8_t i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
  table['='] = kPad;
  return table;
}

constexpr std::array<std::uint8_t, 256> kDecode = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    std::uint32_t triple = (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) |
                           std::uint32_t{bytes[i + 2]};
    out.push_back(kAlphabet[(triple >> 18) & 63]);
    out.push_back(kAlphabet[(triple >> 12) & 63]);
    out.push_back(kAlphabet[(triple >> 6) & 63]);
    out.push_back(kAlphabet[triple & 63]);
  }
  std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t triple = std::uint32_t{bytes[i]} << 16;
    if (rest == 2) triple |= std::uint32_t{bytes[i + 1]} << 8;
    out.push_back(kAlphabet[(triple >> 18) & 63]);
    out.push_back(kAlphabet[(triple >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(triple >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

std::string base64Encode(std::string_view bytes) {
  return base64Encode(std::span<const std::uint8_t>(
      reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

std::optional<Bytes> base64Decode(std::string_view text, bool ignoreUnknownCharacters) {
  Bytes out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t group = 0;  // sextets of the current 4-character group
  int filled = 0;           // characters of the current group seen so far
  int padding = 0;          // "=" seen in this group; 3 once a padded group ended
  for (char c : text) {
    std::uint8_t value = kDecode[static_cast<unsigned char>(c)];
    if (value == kUnknown) {
      if (ignoreUnknownCharacters) continue;
      return std::nullopt;
    }
    if (value == kPad) {
      // "=" may stand only in the third or fourth place of a group.
      if (filled < 2) return std::nullopt;
      ++padding;
    } else {
      if (padding > 0) return std::nullopt;
      group |= std::uint32_t{value} << (18 - 6 * filled);
    }
    if (++filled == 4) {
      out.push_back(static_cast<std::uint8_t>(group >> 16));
      if (padding < 2) out.push_back(static_cast<std::uint8_t>(group >> 8));
      if (padding < 1) out.push_back(static_cast<std::uint8_t>(group));
      group = 0;
      filled = 0;
      // A padded group ends the text: anything after it fails above.
      if (padding > 0) padding = 3;
    }
  }
  if (filled != 0) return std::nullopt;
  return out;
}

}  // namespace qs

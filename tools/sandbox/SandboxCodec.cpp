#include "SandboxCodec.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>
#include <cstdint>
#include <random>

namespace qs::sandbox {

namespace {

constexpr std::string_view kStandard =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kUrlSafe =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string toHex(const unsigned char* data, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    out.push_back(kDigits[data[i] >> 4]);
    out.push_back(kDigits[data[i] & 0x0f]);
  }
  return out;
}

std::string encode(std::string_view bytes, std::string_view alphabet, bool pad) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  auto at = [&](std::size_t k) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[k]));
  };
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t n = (at(i) << 16) | (at(i + 1) << 8) | at(i + 2);
    for (int shift = 18; shift >= 0; shift -= 6) out.push_back(alphabet[(n >> shift) & 63]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t n = at(i) << 16;
    if (rest == 2) n |= at(i + 1) << 8;
    out.push_back(alphabet[(n >> 18) & 63]);
    out.push_back(alphabet[(n >> 12) & 63]);
    if (rest == 2) out.push_back(alphabet[(n >> 6) & 63]);
    if (pad) out.append(rest == 2 ? "=" : "==");
  }
  return out;
}

// Padding is required when `padded`, forbidden otherwise.
std::optional<std::string> decode(std::string_view text, std::string_view alphabet, bool padded) {
  std::size_t padding = 0;
  if (padded) {
    if (text.size() % 4 != 0) return std::nullopt;
    while (padding < 2 && !text.empty() && text.back() == '=') {
      text.remove_suffix(1);
      ++padding;
    }
  }
  if (text.size() % 4 == 1) return std::nullopt;
  std::string out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t acc = 0;
  int bits = 0;
  for (char c : text) {
    const std::size_t pos = alphabet.find(c);
    if (pos == std::string_view::npos) return std::nullopt;
    acc = (acc << 6) | static_cast<std::uint32_t>(pos);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xff));
    }
  }
  // Leftover bits must be zero, so that each byte string has one encoding.
  if ((acc & ((1u << bits) - 1)) != 0) return std::nullopt;
  if (padded && padding != (4 - text.size() % 4) % 4) return std::nullopt;
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string SandboxCodec::hmacSha256Hex(std::string_view key, std::string_view message) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest.data(),
       &size);
  return toHex(digest.data(), size);
}

bool SandboxCodec::constantTimeEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return diff == 0;
}

std::string SandboxCodec::randomHex(std::size_t count) {
  std::string bytes(count, '\0');
  auto* data = reinterpret_cast<unsigned char*>(bytes.data());
  if (RAND_bytes(data, static_cast<int>(count)) != 1) {
    // Identifiers, not keys: a weaker source still keeps the sandbox running.
    std::random_device device;
    for (auto& b : bytes) b = static_cast<char>(device() & 0xff);
  }
  return toHex(data, count);
}

std::string SandboxCodec::uuid4() {
  std::string hex = randomHex(16);
  hex[12] = '4';
  hex[16] = "89ab"[hexValue(hex[16]) & 3];
  return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
         hex.substr(16, 4) + "-" + hex.substr(20, 12);
}

std::string SandboxCodec::base64Encode(std::string_view bytes) {
  return encode(bytes, kStandard, true);
}

std::optional<std::string> SandboxCodec::base64Decode(std::string_view text) {
  return decode(text, kStandard, true);
}

std::string SandboxCodec::base64UrlEncode(std::string_view bytes) {
  return encode(bytes, kUrlSafe, false);
}

std::optional<std::string> SandboxCodec::base64UrlDecode(std::string_view text) {
  return decode(text, kUrlSafe, false);
}

std::optional<Value> SandboxCodec::parseJson(std::string_view text, std::size_t maxDepth) {
  std::size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > maxDepth) return std::nullopt;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  Value parsed = Value::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

std::string SandboxCodec::dumpJson(const Value& value) {
  return value.dump(-1, ' ', false, Value::error_handler_t::replace);
}

}  // namespace qs::sandbox

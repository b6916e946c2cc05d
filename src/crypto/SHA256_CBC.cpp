#include "crypto/SHA256_CBC.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <new>

#include "crypto/Base64.h"

namespace qs {

namespace {

using KeyWords = std::array<std::uint32_t, 4>;

constexpr std::uint32_t kDelta = 0x9E3779B9;

SHA256_CBC::ByteSpan bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::uint32_t loadLittleEndian(const std::uint8_t* bytes) {
  std::uint32_t word;
  std::memcpy(&word, bytes, 4);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
  return word;
}

// Copies the first `count` bytes of `words` out, in little-endian order.
Bytes bytesFromWords(const std::vector<std::uint32_t>& words, std::size_t count) {
  Bytes out(count);
  if constexpr (std::endian::native == std::endian::little) {
    if (count != 0) std::memcpy(out.data(), words.data(), count);
  } else {
    for (std::size_t i = 0; i < count; ++i) {
      out[i] = static_cast<std::uint8_t>(words[i / 4] >> (8 * (i % 4)));
    }
  }
  return out;
}

// The 16-byte key as four words: the first 16 bytes, zero-padded if shorter.
KeyWords keyWords(SHA256_CBC::ByteSpan key) {
  std::array<std::uint8_t, 16> bytes{};
  if (!key.empty()) {
    std::memcpy(bytes.data(), key.data(), std::min<std::size_t>(key.size(), bytes.size()));
  }
  return {loadLittleEndian(&bytes[0]), loadLittleEndian(&bytes[4]), loadLittleEndian(&bytes[8]),
          loadLittleEndian(&bytes[12])};
}

// The XXTEA mixing function. `k` is the key already rotated for this round's
// e, so that only (p & 3) picks the key word.
inline std::uint32_t mix(std::uint32_t sum, std::uint32_t y, std::uint32_t z, std::uint32_t k) {
  return (((z >> 5) ^ (y << 2)) + ((y >> 3) ^ (z << 4))) ^ ((sum ^ y) + (k ^ z));
}

// The key words in the order k[(p & 3) ^ e] takes them for p = 0, 1, 2, 3.
KeyWords roundKey(const KeyWords& k, std::uint32_t sum) {
  std::uint32_t e = (sum >> 2) & 3;
  return {k[0 ^ e], k[1 ^ e], k[2 ^ e], k[3 ^ e]};
}

// REQUIRES: n >= 2. Each word depends on the one just written, so the work
// is one dependency chain of about five operations per word and round. The
// loop is unrolled by four so that each step's key word is fixed.
void encipher(std::uint32_t* v, std::size_t n, const KeyWords& k) {
  std::uint32_t rounds = 6 + static_cast<std::uint32_t>(52 / n);
  std::uint32_t sum = 0;
  std::uint32_t z = v[n - 1];
  const std::size_t last = n - 1;
  while (rounds-- > 0) {
    sum += kDelta;
    const KeyWords rk = roundKey(k, sum);
    std::size_t p = 0;
    for (; p + 4 <= last; p += 4) {
      z = v[p] += mix(sum, v[p + 1], z, rk[0]);
      z = v[p + 1] += mix(sum, v[p + 2], z, rk[1]);
      z = v[p + 2] += mix(sum, v[p + 3], z, rk[2]);
      z = v[p + 3] += mix(sum, v[p + 4], z, rk[3]);
    }
    for (; p < last; ++p) z = v[p] += mix(sum, v[p + 1], z, rk[p & 3]);
    z = v[last] += mix(sum, v[0], z, rk[last & 3]);
  }
}

// REQUIRES: n >= 2. The inverse of encipher: rounds in reverse, words from
// the last to the first, the sum starting at rounds * delta (mod 2^32).
void decipher(std::uint32_t* v, std::size_t n, const KeyWords& k) {
  std::uint32_t rounds = 6 + static_cast<std::uint32_t>(52 / n);
  std::uint32_t sum = rounds * kDelta;
  std::uint32_t y = v[0];
  const std::size_t last = n - 1;
  while (rounds-- > 0) {
    const KeyWords rk = roundKey(k, sum);
    std::size_t p = last;
    for (; p > 0 && (p & 3) != 3; --p) y = v[p] -= mix(sum, y, v[p - 1], rk[p & 3]);
    for (; p >= 4; p -= 4) {
      y = v[p] -= mix(sum, y, v[p - 1], rk[3]);
      y = v[p - 1] -= mix(sum, y, v[p - 2], rk[2]);
      y = v[p - 2] -= mix(sum, y, v[p - 3], rk[1]);
      y = v[p - 3] -= mix(sum, y, v[p - 4], rk[0]);
    }
    for (; p > 0; --p) y = v[p] -= mix(sum, y, v[p - 1], rk[p & 3]);
    y = v[0] -= mix(sum, y, v[last], rk[0]);
    sum -= kDelta;
  }
}

// The same test as for any UTF-8 decoder that refuses malformed input:
// no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(const Bytes& bytes) {
  std::size_t i = 0;
  const std::size_t size = bytes.size();
  while (i < size) {
    std::uint8_t c = bytes[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t length;
    std::uint32_t min;
    std::uint32_t cp;
    if ((c & 0xE0) == 0xC0) {
      length = 2, min = 0x80, cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3, min = 0x800, cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4, min = 0x10000, cp = c & 0x07;
    } else {
      return false;
    }
    if (size - i < length) return false;
    for (std::size_t j = 1; j < length; ++j) {
      if ((bytes[i + j] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (bytes[i + j] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

std::optional<std::string> utf8String(std::optional<Bytes> bytes) {
  if (!bytes || !isValidUtf8(*bytes)) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

}  // namespace

std::optional<std::vector<std::uint32_t>> SHA256_CBC::xxtea_to_uint_array(ByteSpan bytes,
                                                                          bool includeLength) {
  if (includeLength && bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    return std::nullopt;
  }
  try {
    std::size_t dataWords = bytes.size() / 4 + (bytes.size() % 4 != 0 ? 1 : 0);
    std::vector<std::uint32_t> words(dataWords + (includeLength ? 1 : 0));
    if constexpr (std::endian::native == std::endian::little) {
      if (!bytes.empty()) std::memcpy(words.data(), bytes.data(), bytes.size());
    } else {
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        words[i / 4] |= std::uint32_t{bytes[i]} << (8 * (i % 4));
      }
    }
    if (includeLength) words.back() = static_cast<std::uint32_t>(bytes.size());
    return words;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  } catch (const std::length_error&) {
    return std::nullopt;
  }
}

Bytes SHA256_CBC::encrypt(ByteSpan data, ByteSpan key) {
  if (data.empty()) return {};
  const KeyWords k = keyWords(key);
  auto v = xxtea_to_uint_array(data, true);
  if (!v) return {};
  encipher(v->data(), v->size(), k);
  try {
    return bytesFromWords(*v, 4 * v->size());
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::optional<Bytes> SHA256_CBC::decrypt(ByteSpan data, ByteSpan key) {
  if (data.empty()) return std::nullopt;
  const KeyWords k = keyWords(key);
  auto v = xxtea_to_uint_array(data, false);
  if (!v) return std::nullopt;
  const std::size_t n = v->size();
  // A single word can hold no data beside the length word: never valid.
  if (n < 2) return std::nullopt;
  decipher(v->data(), n, k);
  // The length word must name a byte count that needs exactly n - 1 words.
  const std::uint64_t length = v->back();
  if (length + 7 < 4 * std::uint64_t{n} || length > 4 * std::uint64_t{n} - 4) return std::nullopt;
  try {
    return bytesFromWords(*v, static_cast<std::size_t>(length));
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

Bytes SHA256_CBC::encrypt(ByteSpan data, std::string_view stringKey) {
  return encrypt(data, bytesOf(stringKey));
}

std::string SHA256_CBC::encryptToBase64String(ByteSpan data, ByteSpan key) {
  return base64Encode(encrypt(data, key));
}

std::string SHA256_CBC::encryptToBase64String(ByteSpan data, std::string_view stringKey) {
  return base64Encode(encrypt(data, bytesOf(stringKey)));
}

Bytes SHA256_CBC::encryptString(std::string_view data, ByteSpan key) {
  return encrypt(bytesOf(data), key);
}

Bytes SHA256_CBC::encryptString(std::string_view data, std::string_view stringKey) {
  return encrypt(bytesOf(data), bytesOf(stringKey));
}

std::string SHA256_CBC::encryptStringToBase64String(std::string_view data, ByteSpan key) {
  return encryptToBase64String(bytesOf(data), key);
}

std::string SHA256_CBC::encryptStringToBase64String(std::string_view data,
                                                    std::string_view stringKey) {
  return encryptToBase64String(bytesOf(data), bytesOf(stringKey));
}

std::optional<Bytes> SHA256_CBC::decrypt(ByteSpan data, std::string_view stringKey) {
  return decrypt(data, bytesOf(stringKey));
}

std::optional<Bytes> SHA256_CBC::decryptBase64String(std::string_view base64, ByteSpan key) {
  auto data = base64Decode(base64, true);
  if (!data) return std::nullopt;
  return decrypt(*data, key);
}

std::optional<Bytes> SHA256_CBC::decryptBase64String(std::string_view base64,
                                                     std::string_view stringKey) {
  return decryptBase64String(base64, bytesOf(stringKey));
}

std::optional<std::string> SHA256_CBC::decryptToString(ByteSpan data, ByteSpan key) {
  return utf8String(decrypt(data, key));
}

std::optional<std::string> SHA256_CBC::decryptToString(ByteSpan data, std::string_view stringKey) {
  return utf8String(decrypt(data, bytesOf(stringKey)));
}

std::optional<std::string> SHA256_CBC::decryptBase64StringToString(std::string_view base64,
                                                                   ByteSpan key) {
  return utf8String(decryptBase64String(base64, key));
}

std::optional<std::string> SHA256_CBC::decryptBase64StringToString(std::string_view base64,
                                                                   std::string_view stringKey) {
  return utf8String(decryptBase64String(base64, bytesOf(stringKey)));
}

}  // namespace qs

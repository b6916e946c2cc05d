#include "crypto/SHA256_CBC.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qs {
namespace {

// An independent, deliberately plain XXTEA: byte-wise packing, the cipher as
// usually written, nothing shared with the code under test.
using Words = std::vector<std::uint32_t>;
constexpr std::uint32_t kDelta = 0x9E3779B9;

Words pack(const Bytes& bytes, std::size_t words) {
  Words v(words, 0);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    v[i / 4] |= std::uint32_t{bytes[i]} << (8 * (i % 4));
  return v;
}

Bytes unpack(const Words& v) {
  Bytes out;
  for (std::uint32_t w : v) {
    for (int b = 0; b < 4; ++b) out.push_back(static_cast<std::uint8_t>(w >> (8 * b)));
  }
  return out;
}

Words keyOf(Bytes key) {
  key.resize(16, 0);
  return pack(key, 4);
}

std::uint32_t mx(std::uint32_t sum, std::uint32_t y, std::uint32_t z, std::size_t p,
                 std::uint32_t e, const Words& k) {
  return (((z >> 5) ^ (y << 2)) + ((y >> 3) ^ (z << 4))) ^ ((sum ^ y) + (k[(p & 3) ^ e] ^ z));
}

void refEncipher(Words& v, const Words& k) {
  std::size_t n = v.size();
  std::uint32_t sum = 0, z = v[n - 1], y;
  for (std::size_t rounds = 6 + 52 / n; rounds > 0; --rounds) {
    sum += kDelta;
    std::uint32_t e = (sum >> 2) & 3;
    std::size_t p;
    for (p = 0; p < n - 1; ++p) {
      y = v[p + 1];
      z = v[p] += mx(sum, y, z, p, e, k);
    }
    y = v[0];
    z = v[n - 1] += mx(sum, y, z, p, e, k);
  }
}

Bytes refEncrypt(const Bytes& data, const Bytes& key) {
  Words v = pack(data, (data.size() + 3) / 4 + 1);
  v.back() = static_cast<std::uint32_t>(data.size());
  refEncipher(v, keyOf(key));
  return unpack(v);
}

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes pattern(std::size_t size, std::uint8_t seed) {
  Bytes out(size);
  for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<std::uint8_t>(seed + i * 37);
  return out;
}

TEST(SHA256_CBCTest, MatchesReferenceForEveryWordLayoutAndRoundCount) {
  // Sizes cover 1 to 4 padding bytes, the unrolled and the tail paths, and
  // round counts from 32 (n = 2) down to 6 (n > 52).
  const Bytes key = bytes("app-id-0123456789");
  for (std::size_t size : {1, 2, 3, 4, 5, 7, 8, 9, 12, 13, 16, 31, 64, 100, 207, 208, 1000, 4099}) {
    SCOPED_TRACE(size);
    const Bytes data = pattern(size, static_cast<std::uint8_t>(size));
    const Bytes cipher = SHA256_CBC::encrypt(data, key);
    EXPECT_EQ(cipher, refEncrypt(data, key));
    EXPECT_EQ(cipher.size(), 4 * ((size + 3) / 4 + 1));
    EXPECT_EQ(SHA256_CBC::decrypt(cipher, key), data);
  }
  EXPECT_EQ(SHA256_CBC::encrypt(bytes("x"), key).size(), 8u);
  EXPECT_EQ(SHA256_CBC::encrypt(bytes("hello"), key).size(), 12u);
}

TEST(SHA256_CBCTest, KeyIsCutOrZeroPaddedToSixteenBytes) {
  const Bytes data = bytes("{\"t\":\"QS315\"}");
  const Bytes long20 = bytes("ABCDEFGHIJKLMNOPQRST");
  const Bytes first16(long20.begin(), long20.begin() + 16);
  EXPECT_EQ(SHA256_CBC::encrypt(data, long20), SHA256_CBC::encrypt(data, first16));
  EXPECT_EQ(SHA256_CBC::encrypt(data, bytes("abc")),
            SHA256_CBC::encrypt(data, Bytes{'a', 'b', 'c', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(SHA256_CBC::encrypt(data, Bytes{}), refEncrypt(data, Bytes(16, 0)));
  // A string key is its UTF-8 bytes.
  EXPECT_EQ(SHA256_CBC::encrypt(data, "clé"), SHA256_CBC::encrypt(data, bytes("clé")));
  EXPECT_NE(SHA256_CBC::encrypt(data, "abc"), SHA256_CBC::encrypt(data, "abd"));
}

TEST(SHA256_CBCTest, EmptyInputs) {
  EXPECT_TRUE(SHA256_CBC::encrypt(Bytes{}, "key").empty());
  EXPECT_EQ(SHA256_CBC::encryptStringToBase64String("", "key"), "");
  EXPECT_EQ(SHA256_CBC::encryptToBase64String(Bytes{}, Bytes{1, 2}), "");
  EXPECT_EQ(SHA256_CBC::decrypt(Bytes{}, "key"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decryptBase64String("", "key"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decryptBase64StringToString("\n", "key"), std::nullopt);
}

TEST(SHA256_CBCTest, LengthWordMustFitTheCiphertext) {
  const Words k = keyOf(bytes("k"));
  // Three words: two data words and a length word that must lie in 5..8.
  auto cipherWithLength = [&](std::uint32_t length) {
    Words v = {0x64636261, 0x68676665, length};
    refEncipher(v, k);
    return unpack(v);
  };
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(4), bytes("k")), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(5), bytes("k")), bytes("abcde"));
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(8), bytes("k")), bytes("abcdefgh"));
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(9), bytes("k")), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(0xFFFFFFFF), bytes("k")), std::nullopt);

  // One word is never valid, whatever it holds.
  EXPECT_EQ(SHA256_CBC::decrypt(Bytes{1, 0, 0, 0}, "k"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(Bytes{0, 0}, "k"), std::nullopt);
  // A wrong key garbles the length word.
  const Bytes cipher = SHA256_CBC::encryptString("{\"t\":\"QS325\",\"d\":{}}", "right");
  EXPECT_EQ(SHA256_CBC::decrypt(cipher, "wrong"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decryptToString(cipher, "right"), "{\"t\":\"QS325\",\"d\":{}}");
}

TEST(SHA256_CBCTest, Base64AndStringVariants) {
  const std::string text = "{\"t\":\"QS315\",\"d\":{\"QS320\":\"Laptop ✓\"}}";
  const std::string b64 = SHA256_CBC::encryptStringToBase64String(text, "appId");
  EXPECT_EQ(SHA256_CBC::decryptBase64StringToString(b64, "appId"), text);
  // Line breaks and other characters outside the alphabet are skipped.
  std::string wrapped;
  for (std::size_t i = 0; i < b64.size(); ++i) {
    if (i % 8 == 7) wrapped += "\r\n";
    wrapped += b64[i];
  }
  EXPECT_EQ(SHA256_CBC::decryptBase64StringToString(wrapped + "\n", "appId"), text);
  EXPECT_EQ(SHA256_CBC::decryptBase64String(b64, bytes("appId")), bytes(text));
  EXPECT_EQ(SHA256_CBC::decryptBase64String("Zm9=v", "appId"), std::nullopt);

  // Plaintext that is not UTF-8 decrypts as bytes but not as a string.
  const Bytes invalid = {0x7B, 0xC3, 0x28, 0x7D};
  const Bytes cipher = SHA256_CBC::encrypt(invalid, "appId");
  EXPECT_EQ(SHA256_CBC::decrypt(cipher, "appId"), invalid);
  EXPECT_EQ(SHA256_CBC::decryptToString(cipher, "appId"), std::nullopt);
  for (const Bytes& bad : {Bytes{0xC0, 0x80}, Bytes{0xED, 0xA0, 0x80},
                           Bytes{0xF4, 0x90, 0x80, 0x80}, Bytes{0xE2, 0x9C}}) {
    EXPECT_EQ(SHA256_CBC::decryptToString(SHA256_CBC::encrypt(bad, "k"), "k"), std::nullopt);
  }
  EXPECT_EQ(SHA256_CBC::decryptToString(SHA256_CBC::encrypt(bytes("\xF0\x9F\x98\x80"), "k"), "k"),
            "\xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace qs

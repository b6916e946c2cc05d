#include "crypto/SHA256_CBC.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qs {
namespace {

// An independent, deliberately plain XXTEA: byte-wise packing, the cipher as
// usually written, nothing shared with the code under test.
using Words = std::vector<std::uint32_t>;

Words pack(Bytes bytes, std::size_t words) {
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

void refEncipher(Words& v, Bytes keyBytes) {
  keyBytes.resize(16, 0);
  const Words k = pack(keyBytes, 4);
  const std::size_t n = v.size();
  std::uint32_t sum = 0, z = v[n - 1];
  for (std::size_t rounds = 6 + 52 / n; rounds > 0; --rounds) {
    sum += 0x9E3779B9;
    const std::uint32_t e = (sum >> 2) & 3;
    for (std::size_t p = 0; p < n; ++p) {
      const std::uint32_t y = v[(p + 1) % n];
      z = v[p] +=
          (((z >> 5) ^ (y << 2)) + ((y >> 3) ^ (z << 4))) ^ ((sum ^ y) + (k[(p & 3) ^ e] ^ z));
    }
  }
}

Bytes refEncrypt(const Bytes& data, const Bytes& key) {
  Words v = pack(data, (data.size() + 3) / 4 + 1);
  v.back() = static_cast<std::uint32_t>(data.size());
  refEncipher(v, key);
  return unpack(v);
}

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

// The one comparison table: sizes cover 1 to 4 padding bytes, the unrolled
// and the tail paths and round counts from 32 (n = 2) down to 6 (n > 52);
// keys are cut (20 bytes) or zero-padded (3, 0 bytes) to sixteen.
TEST(SHA256_CBCTest, MatchesTheReferenceAndDecryptsBack) {
  const Bytes keys[] = {bytes("app-id-0123456789"), bytes("ABCDEFGHIJKLMNOPQRST"), bytes("abc"),
                        Bytes{}};
  for (std::size_t size : {1, 2, 3, 4, 5, 7, 8, 9, 12, 13, 16, 31, 64, 100, 207, 208, 1000, 4099}) {
    for (const Bytes& key : keys) {
      SCOPED_TRACE(testing::Message() << size << " bytes, key of " << key.size());
      Bytes data(size);
      for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(size + i * 37);
      const Bytes cipher = SHA256_CBC::encrypt(data, key);
      EXPECT_EQ(cipher, refEncrypt(data, key));
      EXPECT_EQ(SHA256_CBC::decrypt(cipher, key), data);
    }
  }
  // A string key is its UTF-8 bytes.
  EXPECT_EQ(SHA256_CBC::encrypt(bytes("{}"), "clé"), refEncrypt(bytes("{}"), bytes("clé")));
}

TEST(SHA256_CBCTest, DecryptRejectsWhatCannotBeACiphertext) {
  // Three words: two data words and a length word that must lie in 5..8.
  auto cipherWithLength = [](std::uint32_t length) {
    Words v = {0x64636261, 0x68676665, length};
    refEncipher(v, bytes("k"));
    return unpack(v);
  };
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(4), bytes("k")), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(5), bytes("k")), bytes("abcde"));
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(8), bytes("k")), bytes("abcdefgh"));
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(9), bytes("k")), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(cipherWithLength(0xFFFFFFFF), bytes("k")), std::nullopt);
  // One word or less, nothing, or a wrong key (it garbles the length word).
  EXPECT_EQ(SHA256_CBC::decrypt(Bytes{1, 0, 0, 0}, "k"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(Bytes{0, 0}, "k"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(Bytes{}, "key"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decryptBase64StringToString("\n", "key"), std::nullopt);
  EXPECT_EQ(SHA256_CBC::decrypt(SHA256_CBC::encryptString("{\"t\":1}", "right"), "wrong"),
            std::nullopt);
  // Nothing in, nothing out.
  EXPECT_TRUE(SHA256_CBC::encrypt(Bytes{}, "key").empty());
  EXPECT_EQ(SHA256_CBC::encryptStringToBase64String("", "key"), "");
}

TEST(SHA256_CBCTest, Base64AndStringVariants) {
  const std::string text = "{\"t\":\"QS315\",\"d\":{\"QS320\":\"Laptop ✓\"}}";
  const std::string b64 = SHA256_CBC::encryptStringToBase64String(text, "appId");
  EXPECT_EQ(SHA256_CBC::decryptBase64StringToString(b64, "appId"), text);
  // Line breaks and other characters outside the alphabet are skipped.
  std::string wrapped;
  for (std::size_t i = 0; i < b64.size(); ++i)
    wrapped += (i % 8 == 7 ? "\r\n" : "") + b64.substr(i, 1);
  EXPECT_EQ(SHA256_CBC::decryptBase64StringToString(wrapped + "\n", "appId"), text);
  EXPECT_EQ(SHA256_CBC::decryptBase64String("Zm9=v", "appId"), std::nullopt);

  // Plaintext that is not UTF-8 decrypts as bytes but not as a string.
  for (const Bytes& bad :
       {Bytes{0x7B, 0xC3, 0x28, 0x7D}, Bytes{0xC0, 0x80}, Bytes{0xED, 0xA0, 0x80},
        Bytes{0xF4, 0x90, 0x80, 0x80}, Bytes{0xE2, 0x9C}}) {
    const Bytes cipher = SHA256_CBC::encrypt(bad, "k");
    EXPECT_EQ(SHA256_CBC::decrypt(cipher, "k"), bad);
    EXPECT_EQ(SHA256_CBC::decryptToString(cipher, "k"), std::nullopt);
  }
  EXPECT_EQ(SHA256_CBC::decryptToString(SHA256_CBC::encrypt(bytes("\xF0\x9F\x98\x80"), "k"), "k"),
            "\xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace qs

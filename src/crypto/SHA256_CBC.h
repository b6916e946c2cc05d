#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quarrystone/Value.h"

namespace qs {

// The payload cipher: XXTEA over the data followed by a word holding the data
// length, under a 16-byte key. Despite its name it has nothing to do with
// SHA-256 or block chaining; the collector knows it by this name and decrypts
// with exactly these rules. Stateless; every operation is safe from any thread.
//
// Keys: byte keys are used as given, string keys by their UTF-8 bytes. Either
// is cut to its first 16 bytes or padded with zero bytes up to 16.
// Words are little-endian: byte 0 is the low byte of word 0.
class SHA256_CBC {
 public:
  using ByteSpan = std::span<const std::uint8_t>;

  // Ciphertext of 4 * (ceil(L/4) + 1) bytes for L bytes of data. Empty data,
  // or data too large to encipher, give an empty buffer.
  static Bytes encrypt(ByteSpan data, ByteSpan key);
  static Bytes encrypt(ByteSpan data, std::string_view stringKey);
  static std::string encryptToBase64String(ByteSpan data, ByteSpan key);
  static std::string encryptToBase64String(ByteSpan data, std::string_view stringKey);
  static Bytes encryptString(std::string_view data, ByteSpan key);
  static Bytes encryptString(std::string_view data, std::string_view stringKey);
  static std::string encryptStringToBase64String(std::string_view data, ByteSpan key);
  static std::string encryptStringToBase64String(std::string_view data, std::string_view stringKey);

  // The plaintext, or nullopt for empty input, input of one word or less, and
  // a length word that does not fit the ciphertext size (what a wrong key
  // almost always gives). Base64 input skips characters outside the alphabet
  // and fails if it does not decode. String results must be valid UTF-8.
  static std::optional<Bytes> decrypt(ByteSpan data, ByteSpan key);
  static std::optional<Bytes> decrypt(ByteSpan data, std::string_view stringKey);
  static std::optional<Bytes> decryptBase64String(std::string_view base64, ByteSpan key);
  static std::optional<Bytes> decryptBase64String(std::string_view base64,
                                                  std::string_view stringKey);
  static std::optional<std::string> decryptToString(ByteSpan data, ByteSpan key);
  static std::optional<std::string> decryptToString(ByteSpan data, std::string_view stringKey);
  static std::optional<std::string> decryptBase64StringToString(std::string_view base64,
                                                                ByteSpan key);
  static std::optional<std::string> decryptBase64StringToString(std::string_view base64,
                                                                std::string_view stringKey);

  // Packs bytes into little-endian words, the last one zero-padded; with
  // `includeLength` one more word holds the byte count. nullopt when the
  // count does not fit that word or the words cannot be allocated.
  static std::optional<std::vector<std::uint32_t>> xxtea_to_uint_array(ByteSpan bytes,
                                                                       bool includeLength);
};

}  // namespace qs

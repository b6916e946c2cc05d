// Decryption of arbitrary ciphertext under a key taken from the input, as
// bytes and as base64 text; and the round trip of the input as plaintext.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "crypto/SHA256_CBC.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The first byte gives the key length (0..31, so both cut and padded keys occur).
  std::size_t keyLength = std::min<std::size_t>(data[0] % 32, size - 1);
  std::span<const std::uint8_t> key(data + 1, keyLength);
  std::span<const std::uint8_t> body(data + 1 + keyLength, size - 1 - keyLength);

  auto plain = qs::SHA256_CBC::decrypt(body, key);
  // The length word admits only counts that need exactly the words given.
  if (plain && (plain->size() + 8 <= body.size() || plain->size() >= body.size())) __builtin_trap();
  std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
  (void)qs::SHA256_CBC::decryptBase64StringToString(text, key);

  qs::Bytes cipher = qs::SHA256_CBC::encrypt(body, key);
  if (cipher.size() != (body.empty() ? 0 : 4 * ((body.size() + 3) / 4 + 1))) __builtin_trap();
  auto back = qs::SHA256_CBC::decrypt(cipher, key);
  if (!body.empty() &&
      (!back || !std::equal(back->begin(), back->end(), body.begin(), body.end()))) {
    __builtin_trap();
  }
  return 0;
}

// SHA-1 through OpenSSL and grapheme clusters through utf8proc.
#include <openssl/sha.h>
#include <utf8proc.h>

#include "quarrystone/LinuxPlatform.h"

namespace qs {

namespace {

class OpenSslCrypto final : public Crypto {
 public:
  std::array<std::uint8_t, 20> sha1(std::string_view data) override {
    std::array<std::uint8_t, 20> digest{};
    SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data());
    return digest;
  }
};

// Walks the text code point by code point and asks utf8proc where extended
// grapheme clusters break. An invalid byte counts as a cluster of its own.
class Utf8procText final : public Text {
 public:
  std::vector<std::size_t> graphemeStarts(std::string_view utf8) override {
    std::vector<std::size_t> starts;
    utf8proc_int32_t state = 0;
    utf8proc_int32_t previous = -1;
    std::size_t i = 0;
    while (i < utf8.size()) {
      utf8proc_int32_t cp = 0;
      auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(utf8.data() + i),
                                     static_cast<utf8proc_ssize_t>(utf8.size() - i), &cp);
      bool invalid = length <= 0;
      if (invalid) {
        length = 1;
        cp = -1;
      }
      if (previous < 0 || cp < 0 || utf8proc_grapheme_break_stateful(previous, cp, &state)) {
        starts.push_back(i);
        if (cp < 0) state = 0;
      }
      previous = cp;
      i += static_cast<std::size_t>(length);
    }
    return starts;
  }
};

}  // namespace

std::shared_ptr<Crypto> makeOpenSslCrypto() { return std::make_shared<OpenSslCrypto>(); }
std::shared_ptr<Text> makeUtf8procText() { return std::make_shared<Utf8procText>(); }

}  // namespace qs

// SHA-1 through OpenSSL's libcrypto, which the core's targets all have.
#include <openssl/sha.h>

#include "quarrystone/PortableServices.h"

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

}  // namespace

std::shared_ptr<Crypto> makeOpenSslCrypto() { return std::make_shared<OpenSslCrypto>(); }

}  // namespace qs

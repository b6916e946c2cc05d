// SHA-1 through OpenSSL's libcrypto, which the core's targets all have.
#include <openssl/evp.h>
#include <openssl/sha.h>

#include "quarrystone/PortableServices.h"

namespace qs {

namespace {

// Thread contract: sha1() from any thread; the fetched digest is read-only.
class OpenSslCrypto final : public Crypto {
 public:
  // The first SHA-1 of a process costs OpenSSL about a millisecond of
  // one-time set-up (loading its provider, finding the algorithm); paid here,
  // when the platform is made, instead of in the first activity at start-up.
  OpenSslCrypto() : sha1_(EVP_MD_fetch(nullptr, "SHA1", nullptr)) {}
  ~OpenSslCrypto() override { EVP_MD_free(sha1_); }
  OpenSslCrypto(const OpenSslCrypto&) = delete;
  OpenSslCrypto& operator=(const OpenSslCrypto&) = delete;

  std::array<std::uint8_t, 20> sha1(std::string_view data) override {
    std::array<std::uint8_t, 20> digest{};
    unsigned int length = 0;
    if (sha1_ == nullptr ||
        EVP_Digest(data.data(), data.size(), digest.data(), &length, sha1_, nullptr) != 1) {
      SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data());
    }
    return digest;
  }

 private:
  EVP_MD* const sha1_;  // owned; null when the fetch failed
};

}  // namespace

std::shared_ptr<Crypto> makeOpenSslCrypto() { return std::make_shared<OpenSslCrypto>(); }

}  // namespace qs

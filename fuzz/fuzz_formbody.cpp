// The sandbox collector's request body: arbitrary bytes as the raw form body,
// and as the decrypted activity inside a well-formed body, so that the JSON
// and activity checks behind the decryption are reached too. The form parser
// keeps its bounds; the collector answers every body with 200 or 400 and a
// JSON answer, never anything else.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "CollectorService.h"
#include "FormBody.h"
#include "SandboxCodec.h"
#include "crypto/SHA256_CBC.h"

namespace {

using qs::sandbox::FormBody;

const qs::sandbox::TokenSigner& signer() {
  static const qs::sandbox::TokenSigner instance("fuzz-secret");
  return instance;
}

void collect(const qs::sandbox::CollectorService& service, std::string_view body) {
  const auto outcome = service.collect(body, "");
  if (outcome.status != 200 && outcome.status != 400) __builtin_trap();
  if (!qs::sandbox::SandboxCodec::parseJson(outcome.body)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto form = FormBody::parse(text);
  if (form) {
    if (form.value->fields.size() > FormBody::kMaxFields) __builtin_trap();
    for (const auto& [key, value] : form.value->fields) {
      if (key.empty() || key.size() > FormBody::kMaxKeyLength) __builtin_trap();
      if (text.find(key + "=" + value) == std::string_view::npos) __builtin_trap();
    }
  } else if (form.error.empty()) {
    __builtin_trap();
  }

  const qs::sandbox::CollectorService service(
      signer(), [] { return 1'700'000'000.0; }, qs::sandbox::CollectorSettings{});
  collect(service, text);
  collect(service, "appId=APP&uuid=u&sid=s&payload=" +
                       qs::SHA256_CBC::encryptStringToBase64String(text, "APP"));
  return 0;
}

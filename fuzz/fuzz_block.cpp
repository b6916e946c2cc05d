// The host backend's block or captcha answer: bytes parsed as JSON the way a
// host hands its response body to checkError (which builds a QSBlockResponse
// from it), and the same bytes as the base64 page of a captcha answer, so that
// the page decoding sees arbitrary text too. A foreign answer carries nothing;
// a decoded page is valid UTF-8 that encodes back to a page decoding alike.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "crypto/Base64.h"
#include "quarrystone/QSBlockResponse.h"

namespace {

void check(const qs::QSBlockResponse& response) {
  switch (response.type()) {
    case qs::QSBlockResponseTypeForeign:
      if (!response.uuid().empty() || !response.vid().empty() || !response.appId().empty() ||
          !response.pageHtml().empty() || !response.collectorUrl().empty()) {
        __builtin_trap();
      }
      break;
    case qs::QSBlockResponseTypeBlock:
    case qs::QSBlockResponseTypeCaptcha:
      break;
    default:
      __builtin_trap();
  }
  if (!response.pageHtml().empty()) {
    const std::string& html = response.pageHtml();
    qs::QSBlockResponse again(qs::Value{{"action", "block"}, {"page", qs::base64Encode(html)}});
    if (again.pageHtml() != html) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  qs::Value body = qs::Value::parse(text, nullptr, /*allow_exceptions=*/false);
  check(qs::QSBlockResponse(body));

  qs::QSBlockResponse captcha(qs::Value{{"action", "captcha"}, {"page", std::string(text)}});
  if (captcha.type() != qs::QSBlockResponseTypeCaptcha) __builtin_trap();
  check(captcha);
  return 0;
}

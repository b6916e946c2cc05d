// The captcha callback URL the block page navigates to: its "status" query
// item decides success. Arbitrary bytes are read as the URL, alone and behind
// the callback prefix. Success never reports an error; a failure reports at
// most one (exactly one when there is no query at all). Handling the callback
// either tells the delegate or loads the page again, never both.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "block/QSWebViewController.h"

namespace {

struct Counts : qs::QSWebViewDelegate {
  int reports = 0;
  int loads = 0;
  int solved = 0;
  void captchaSuccess() override { ++solved; }
  void reset() { reports = loads = solved = 0; }
};

void run(const std::string& url) {
  auto counts = std::make_shared<Counts>();
  auto controller = std::make_shared<qs::QSWebViewController>(
      qs::Platform{}, "agent", "web.example",
      [counts] {
        ++counts->loads;
        return std::string("https://collector.example");
      },
      [counts](const std::string&) { ++counts->reports; });
  controller->setDelegate(counts);
  controller->loadWebView();  // sets the base URL the callback is recognised by
  counts->reset();

  const bool ok = controller->captchaSuccess(url);
  if (ok && counts->reports != 0) __builtin_trap();
  if (!ok && counts->reports > 1) __builtin_trap();
  if (url.find('?') == std::string::npos && (ok || counts->reports != 1)) __builtin_trap();

  if (controller->isCaptchaRedirectCallback(url)) {
    counts->reset();
    controller->handleCaptchaCallback(url);
    if (counts->solved + counts->loads != 1 || (counts->solved == 1) != ok) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string url(reinterpret_cast<const char*>(data), size);
  run(url);
  run("https://web.example/qs/captcha_callback?" + url);
  return 0;
}

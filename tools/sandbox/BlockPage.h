#pragma once

#include <string>
#include <string_view>

namespace qs::sandbox {

// The pages the backend's block answers carry: self-contained HTML (inline
// CSS and script, no outside resources), shown by the library's web view with
// the service's base URL, so relative links resolve against it.
class BlockPage {
 public:
  // The relative URL a solved captcha navigates to.
  static constexpr std::string_view kCallbackPath = "/qs/captcha_callback?status=0";

  // A button that "solves" the captcha; with autosolve the page presses it
  // itself about a second after loading.
  static std::string captchaHtml(std::string_view reference, bool autosolve);
  // No way out: the block page has no button.
  static std::string blockHtml(std::string_view reference);
};

}  // namespace qs::sandbox

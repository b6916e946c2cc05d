#pragma once

#include <functional>
#include <memory>
#include <string>

#include "quarrystone/Export.h"

namespace qs {

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
};

// Why a page navigates; passed to the should-start-load decision.
enum class NavigationType {
  LinkClicked,
  FormSubmitted,
  BackForward,
  Reload,
  FormResubmitted,
  Other,
};

// A web view that loads an HTML string and asks before every navigation.
// Web views take their user agent from the key/value store's "UserAgent"
// value (persisted, else registered default), read again at every load.
// Used on the UI (main) thread only.
class QS_EXPORT WebView {
 public:
  // Returns whether the navigation to `url` (absolute) may go ahead. The
  // decision may load another page or dismiss the view's controller.
  using ShouldStartLoad = std::function<bool(const std::string& url, NavigationType type)>;
  virtual ~WebView() = default;
  virtual void setShouldStartLoad(ShouldStartLoad decide) = 0;
  // Shows `html` as a document whose URL is `baseUrl`.
  virtual void loadHTMLString(const std::string& html, const std::string& baseUrl) = 0;
};

// A screen's worth of UI with the lifecycle the platform drives. The core's
// controllers derive from it; a host passes its own as the one to present over.
class QS_EXPORT ViewController {
 public:
  virtual ~ViewController() = default;
  virtual void viewDidLoad() {}
  virtual void viewWillDisappear(bool /*animated*/) {}
  virtual void didReceiveMemoryWarning() {}
};

// Presentation and web views. Main (UI) thread only.
class QS_EXPORT UI {
 public:
  virtual ~UI() = default;
  virtual std::shared_ptr<WebView> createWebView(Rect frame) = 0;
  // Makes `view` the content of `controller`'s view.
  virtual void setContent(ViewController& controller, std::shared_ptr<WebView> view) = 0;
  // Presents `controller` modally over `host` (the host's own controller or
  // one presented earlier): calls viewDidLoad, then shows it. The UI keeps
  // the controller alive until it is dismissed.
  virtual void present(std::shared_ptr<ViewController> controller, ViewController& host,
                       bool animated) = 0;
  // Removes a presented controller; calls viewWillDisappear first. Does
  // nothing for a controller that is not presented. A controller the user
  // closes is dismissed the same way.
  virtual void dismiss(ViewController& controller, bool animated) = 0;
};

}  // namespace qs

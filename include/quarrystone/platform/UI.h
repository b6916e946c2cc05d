#pragma once

#include <functional>
#include <memory>
#include <string>

#include "quarrystone/Export.h"

namespace qs {

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
};

// A web view that loads an HTML string and asks before every navigation.
// Used on the UI (main) thread only.
class QS_EXPORT WebView {
 public:
  // Returns whether the navigation to `url` may go ahead.
  using ShouldStartLoad = std::function<bool(const std::string& url, int navigationType)>;
  virtual ~WebView() = default;
  virtual void setShouldStartLoad(ShouldStartLoad decide) = 0;
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
  // Presents `controller` modally over `host`: calls viewDidLoad, then shows it.
  virtual void present(std::shared_ptr<ViewController> controller, ViewController& host,
                       bool animated) = 0;
  // Removes a presented controller; calls viewWillDisappear first.
  virtual void dismiss(ViewController& controller, bool animated) = 0;
};

}  // namespace qs

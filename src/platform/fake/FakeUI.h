#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quarrystone/platform/UI.h"

namespace qs::fake {

// A web view that records what it is asked to load and lets a test play the
// page: navigate() asks the view's decision as a real page's navigation would.
// Test thread only.
class FakeWebView final : public WebView, public std::enable_shared_from_this<FakeWebView> {
 public:
  struct Load {
    std::string html;
    std::string baseUrl;
  };

  explicit FakeWebView(Rect frame) : frame_(frame) {}

  void setShouldStartLoad(ShouldStartLoad decide) override { decide_ = std::move(decide); }
  void loadHTMLString(const std::string& html, const std::string& baseUrl) override;

  // The decision for a navigation to `url`; nullopt when no decision is set.
  // The view stays alive through the call even if the decision dismisses it.
  std::optional<bool> navigate(const std::string& url, NavigationType type = NavigationType::Other);

  Rect frame() const { return frame_; }
  const std::vector<Load>& loads() const { return loads_; }

 private:
  Rect frame_;
  ShouldStartLoad decide_;
  std::vector<Load> loads_;
};

// A scripted UI: records presentations, dismissals and web views, and runs
// the controller lifecycle calls synchronously. Test thread only.
class FakeUI final : public UI {
 public:
  struct Presentation {
    std::shared_ptr<ViewController> controller;
    const ViewController* host;  // weak
    bool animated;
  };
  struct Dismissal {
    const ViewController* controller;  // weak: may be destroyed by now
    bool animated;
  };

  std::shared_ptr<WebView> createWebView(Rect frame) override;
  void setContent(ViewController& controller, std::shared_ptr<WebView> view) override;
  void present(std::shared_ptr<ViewController> controller, ViewController& host,
               bool animated) override;
  void dismiss(ViewController& controller, bool animated) override;

  // Controllers on screen, in the order they were presented.
  const std::vector<Presentation>& presented() const { return presented_; }
  const std::vector<Dismissal>& dismissed() const { return dismissed_; }
  bool isPresented(const ViewController& controller) const;
  // Every web view created, in order.
  const std::vector<std::shared_ptr<FakeWebView>>& webViews() const { return webViews_; }
  // The web view set as `controller`'s content, or null.
  std::shared_ptr<FakeWebView> contentOf(const ViewController& controller) const;

 private:
  struct Content {
    const ViewController* controller;  // weak
    std::shared_ptr<FakeWebView> view;
  };

  std::vector<Presentation> presented_;
  std::vector<Dismissal> dismissed_;
  std::vector<std::shared_ptr<FakeWebView>> webViews_;
  std::vector<Content> contents_;
};

}  // namespace qs::fake

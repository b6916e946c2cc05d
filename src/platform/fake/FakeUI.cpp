#include "FakeUI.h"

#include <algorithm>

namespace qs::fake {

void FakeWebView::loadHTMLString(const std::string& html, const std::string& baseUrl) {
  loads_.push_back(Load{html, baseUrl});
}

std::optional<bool> FakeWebView::navigate(const std::string& url, NavigationType type) {
  if (!decide_) return std::nullopt;
  auto keepAlive = shared_from_this();
  ShouldStartLoad decide = decide_;  // the decision may replace itself
  return decide(url, type);
}

std::shared_ptr<WebView> FakeUI::createWebView(Rect frame) {
  auto view = std::make_shared<FakeWebView>(frame);
  webViews_.push_back(view);
  return view;
}

void FakeUI::setContent(ViewController& controller, std::shared_ptr<WebView> view) {
  auto fakeView = std::dynamic_pointer_cast<FakeWebView>(view);
  for (auto& content : contents_) {
    if (content.controller == &controller) {
      content.view = std::move(fakeView);
      return;
    }
  }
  contents_.push_back(Content{&controller, std::move(fakeView)});
}

void FakeUI::present(std::shared_ptr<ViewController> controller, ViewController& host,
                     bool animated) {
  if (!controller) return;
  presented_.push_back(Presentation{controller, &host, animated});
  controller->viewDidLoad();
}

void FakeUI::dismiss(ViewController& controller, bool animated) {
  auto it = std::find_if(presented_.begin(), presented_.end(),
                         [&](const Presentation& p) { return p.controller.get() == &controller; });
  if (it == presented_.end()) return;
  controller.viewWillDisappear(animated);
  dismissed_.push_back(Dismissal{&controller, animated});
  // Released last: this may destroy the controller.
  auto keep = std::move(it->controller);
  presented_.erase(it);
  std::erase_if(contents_, [&](const Content& c) { return c.controller == &controller; });
}

bool FakeUI::isPresented(const ViewController& controller) const {
  return std::any_of(presented_.begin(), presented_.end(),
                     [&](const Presentation& p) { return p.controller.get() == &controller; });
}

std::shared_ptr<FakeWebView> FakeUI::contentOf(const ViewController& controller) const {
  for (const auto& content : contents_) {
    if (content.controller == &controller) return content.view;
  }
  return nullptr;
}

}  // namespace qs::fake

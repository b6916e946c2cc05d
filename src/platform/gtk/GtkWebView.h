#pragma once

#include <webkit/webkit.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "quarrystone/platform/KeyValueStore.h"
#include "quarrystone/platform/UI.h"

namespace qs {

// A WebKit web view behind the WebView interface. Every navigation of the
// page (the main document's and new-window requests) is put to the
// should-start decision through "decide-policy"; a refused one is ignored.
// The user agent is the store's "UserAgent" value, read at creation and again
// at every load. GTK thread only.
class GtkWebView final : public WebView, public std::enable_shared_from_this<GtkWebView> {
 public:
  GtkWebView(Rect frame, std::shared_ptr<KeyValueStore> store);
  ~GtkWebView() override;
  GtkWebView(const GtkWebView&) = delete;
  GtkWebView& operator=(const GtkWebView&) = delete;

  void setShouldStartLoad(ShouldStartLoad decide) override { decide_ = std::move(decide); }
  // Called from within a decision, the load starts once the decision is given.
  void loadHTMLString(const std::string& html, const std::string& baseUrl) override;

  // Ends the page when its controller leaves the screen: the decision is
  // dropped, the document replaced by an empty one, later loads ignored.
  void close();

  // The widget; owned by this object (one reference), valid while it lives.
  WebKitWebView* widget() const { return view_; }
  Rect frame() const { return frame_; }

 private:
  static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                                 WebKitPolicyDecisionType type, gpointer self);
  bool decide(WebKitPolicyDecision* decision);
  void applyUserAgent();

  const Rect frame_;
  const std::shared_ptr<KeyValueStore> store_;
  WebKitWebView* view_;
  gulong decideHandler_ = 0;
  ShouldStartLoad decide_;
  bool deciding_ = false;
  bool closed_ = false;
  std::optional<std::pair<std::string, std::string>> pendingLoad_;  // html, base URL
};

}  // namespace qs

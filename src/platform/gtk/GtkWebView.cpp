#include "GtkWebView.h"

namespace qs {

namespace {

NavigationType navigationTypeOf(WebKitNavigationType type) {
  switch (type) {
    case WEBKIT_NAVIGATION_TYPE_LINK_CLICKED:
      return NavigationType::LinkClicked;
    case WEBKIT_NAVIGATION_TYPE_FORM_SUBMITTED:
      return NavigationType::FormSubmitted;
    case WEBKIT_NAVIGATION_TYPE_BACK_FORWARD:
      return NavigationType::BackForward;
    case WEBKIT_NAVIGATION_TYPE_RELOAD:
      return NavigationType::Reload;
    case WEBKIT_NAVIGATION_TYPE_FORM_RESUBMITTED:
      return NavigationType::FormResubmitted;
    case WEBKIT_NAVIGATION_TYPE_OTHER:
      break;
  }
  return NavigationType::Other;
}

}  // namespace

GtkWebView::GtkWebView(Rect frame, std::shared_ptr<KeyValueStore> store)
    : frame_(frame),
      store_(std::move(store)),
      view_(WEBKIT_WEB_VIEW(g_object_ref_sink(webkit_web_view_new()))) {
  gtk_widget_set_hexpand(GTK_WIDGET(view_), TRUE);
  gtk_widget_set_vexpand(GTK_WIDGET(view_), TRUE);
  decideHandler_ = g_signal_connect(view_, "decide-policy", G_CALLBACK(onDecidePolicy), this);
  applyUserAgent();
}

GtkWebView::~GtkWebView() {
  g_signal_handler_disconnect(view_, decideHandler_);
  g_object_unref(view_);
}

void GtkWebView::applyUserAgent() {
  std::optional<Value> agent;
  if (store_) agent = store_->objectForKey("UserAgent");
  const char* text = nullptr;  // the engine's own
  if (agent && agent->is_string() && !agent->get_ref<const std::string&>().empty()) {
    text = agent->get_ref<const std::string&>().c_str();
  }
  webkit_settings_set_user_agent(webkit_web_view_get_settings(view_), text);
}

void GtkWebView::close() {
  if (closed_) return;
  decide_ = nullptr;
  loadHTMLString("", "about:blank");  // stops the page's scripts
  closed_ = true;
}

void GtkWebView::loadHTMLString(const std::string& html, const std::string& baseUrl) {
  if (closed_) return;
  if (deciding_) {
    // Loading from inside "decide-policy" would race the answer to the
    // navigation being decided; start it right after that answer instead.
    pendingLoad_.emplace(html, baseUrl);
    return;
  }
  applyUserAgent();
  webkit_web_view_load_html(view_, html.c_str(), baseUrl.empty() ? nullptr : baseUrl.c_str());
}

gboolean GtkWebView::onDecidePolicy(WebKitWebView* /*view*/, WebKitPolicyDecision* decision,
                                    WebKitPolicyDecisionType type, gpointer self) {
  if (type != WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION &&
      type != WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION) {
    return FALSE;
  }
  return static_cast<GtkWebView*>(self)->decide(decision) ? TRUE : FALSE;
}

bool GtkWebView::decide(WebKitPolicyDecision* decision) {
  if (!decide_) return false;
  // The decision may dismiss the controller that owns this view.
  auto keepAlive = weak_from_this().lock();
  ShouldStartLoad decideNow = decide_;
  WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(
      WEBKIT_NAVIGATION_POLICY_DECISION(decision));
  const char* uri = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
  NavigationType navigationType =
      navigationTypeOf(webkit_navigation_action_get_navigation_type(action));

  deciding_ = true;
  bool allow = decideNow(uri != nullptr ? uri : "", navigationType);
  deciding_ = false;
  if (allow) {
    webkit_policy_decision_use(decision);
  } else {
    webkit_policy_decision_ignore(decision);
  }
  if (pendingLoad_) {
    auto [html, baseUrl] = std::move(*pendingLoad_);
    pendingLoad_.reset();
    loadHTMLString(html, baseUrl);
  }
  return true;
}

}  // namespace qs

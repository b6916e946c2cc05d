#pragma once

#include <functional>
#include <memory>
#include <string>

#include "quarrystone/QSBlockPage.h"
#include "quarrystone/QSBlockResponse.h"
#include "quarrystone/QSWebViewDelegate.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// The full-screen block or captcha page, presented modally over the host's
// screen. While it is on screen the library's user agent is the web views'
// registered default; the page's navigations are watched for the captcha
// callback "<baseUrl>/qs/captcha_callback?status=N". UI thread only.
// Create it with std::make_shared: the web view's decision holds it weakly.
class QSWebViewController final : public ViewController,
                                  public std::enable_shared_from_this<QSWebViewController> {
 public:
  // `userAgent` is the library's user agent; `webDomain` the service's bare
  // web domain. `collectorUrl` is asked at every load ("staging" in it means
  // plain http). `reportError` sends a client error report to the service.
  QSWebViewController(Platform platform, std::string userAgent, std::string webDomain,
                      std::function<std::string()> collectorUrl,
                      std::function<void(const std::string&)> reportError);
  // A page dropped without being dismissed (its UI went away) still tells
  // its observer that it ended.
  ~QSWebViewController() override;

  // Held weakly: told once when a captcha is solved.
  std::shared_ptr<QSWebViewDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(std::weak_ptr<QSWebViewDelegate> delegate) { delegate_ = std::move(delegate); }
  const std::shared_ptr<QSBlockResponse>& blockResponse() const { return blockResponse_; }
  void setBlockResponse(std::shared_ptr<QSBlockResponse> response) {
    blockResponse_ = std::move(response);
  }
  // Optional: told of failed captcha answers and, once, how the page ended.
  void setObserver(std::shared_ptr<QSBlockPageObserver> observer) {
    observer_ = std::move(observer);
  }
  // A handle that closes this page through the UI; holds the page weakly.
  std::shared_ptr<QSBlockPage> page();
  // Null until viewDidLoad.
  const std::shared_ptr<WebView>& webview() const { return webview_; }
  const std::string& previousUserAgent() const { return previousUserAgent_; }
  const std::string& baseUrl() const { return baseUrl_; }

  // Creates the screen-sized web view, switches the user agent, loads the page.
  void viewDidLoad() override;
  // Puts the host's user agent back (see resetUserAgent).
  void viewWillDisappear(bool animated) override;
  void didReceiveMemoryWarning() override {}

  // Remembers the store's "UserAgent" and registers the library's as default.
  void setUserAgent();
  // Recomputes baseUrl and shows the block response's page with it.
  void loadWebView();
  // The should-start-load decision: a captcha callback is handled and
  // refused, anything else may load.
  bool webView(WebView& webView, const std::string& url, NavigationType navigationType);
  // True when `url` contains "<baseUrl>/qs/captcha_callback" anywhere.
  bool isCaptchaRedirectCallback(const std::string& url) const;
  // Success: tells the delegate, then dismisses. Otherwise reloads the page.
  void handleCaptchaCallback(const std::string& url);
  // Whether the first "status" query item of `url` reads as the integer 0
  // (leniently: empty, absent or non-numeric values count as 0). With no
  // "status" item this is reported to the service and false.
  bool captchaSuccess(const std::string& url);
  // Registers the previous user agent again, if there was one; otherwise
  // the library's stays the default.
  void resetUserAgent();

 private:
  void log(const std::string& line, LogLevel level = LogLevel::Debug) const;
  void notifyEnded();

  Platform platform_;  // without `ui`: the UI owns presented controllers
  std::weak_ptr<UI> ui_;
  const std::string userAgent_;
  const std::string webDomain_;
  const std::function<std::string()> collectorUrl_;
  const std::function<void(const std::string&)> reportError_;

  std::weak_ptr<QSWebViewDelegate> delegate_;
  std::shared_ptr<QSBlockResponse> blockResponse_;
  std::shared_ptr<WebView> webview_;
  std::string previousUserAgent_;
  std::string baseUrl_;
  std::shared_ptr<QSBlockPageObserver> observer_;
  bool solved_ = false;
};

}  // namespace qs

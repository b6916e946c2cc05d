#include "block/QSWebViewController.h"

#include "base/PercentEncoding.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

namespace qs {

namespace {

constexpr const char* kUserAgentKey = "UserAgent";
constexpr const char* kMissingStatusMessage =
    "captchaSuccess --> unexpected, there is no *success* parameter in the callback URL";

struct QueryItem {
  std::string name;
  std::optional<std::string> value;  // nullopt: the item had no "="
};

// The query items of `url` in order, names and values percent-decoded ("+"
// stays a plus). nullopt for a malformed URL: a byte outside printable
// ASCII or a broken percent escape, as a URL parser would refuse it.
std::optional<std::vector<QueryItem>> queryItems(std::string_view url) {
  for (char c : url) {
    auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte >= 0x7F) return std::nullopt;
  }
  std::vector<QueryItem> items;
  std::size_t start = url.find('?');
  if (start == std::string_view::npos) return items;
  std::string_view query = url.substr(start + 1);
  query = query.substr(0, query.find('#'));
  if (!percentDecode(query)) return std::nullopt;
  while (true) {
    std::size_t end = query.find('&');
    std::string_view item = query.substr(0, end);
    std::size_t eq = item.find('=');
    QueryItem parsed;
    parsed.name = *percentDecode(item.substr(0, eq));
    if (eq != std::string_view::npos) parsed.value = *percentDecode(item.substr(eq + 1));
    items.push_back(std::move(parsed));
    if (end == std::string_view::npos) break;
    query.remove_prefix(end + 1);
  }
  return items;
}

// Reads a leading decimal integer the lenient way: leading white space and
// one sign are skipped, reading stops at the first non-digit, no digits give
// 0, and an out-of-range number saturates.
std::int64_t lenientIntegerValue(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  std::int64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    int digit = text[i] - '0';
    if (negative) {
      if (value < (kMin + digit) / 10) return kMin;
      value = value * 10 - digit;
    } else {
      if (value > (kMax - digit) / 10) return kMax;
      value = value * 10 + digit;
    }
  }
  return value;
}

// Closes the page it was made for, if that is still on screen.
class QSWebViewPage final : public QSBlockPage {
 public:
  QSWebViewPage(std::weak_ptr<QSWebViewController> controller, std::weak_ptr<UI> ui)
      : controller_(std::move(controller)), ui_(std::move(ui)) {}
  void close() override {
    auto controller = controller_.lock();
    auto ui = ui_.lock();
    if (controller && ui) ui->dismiss(*controller, false);
  }

 private:
  const std::weak_ptr<QSWebViewController> controller_;
  const std::weak_ptr<UI> ui_;
};

}  // namespace

QSWebViewController::~QSWebViewController() { notifyEnded(); }

std::shared_ptr<QSBlockPage> QSWebViewController::page() {
  return std::make_shared<QSWebViewPage>(weak_from_this(), ui_);
}

void QSWebViewController::notifyEnded() {
  // Taken out first: the observer is told once, and may drop the last
  // reference to itself.
  auto observer = std::move(observer_);
  observer_.reset();
  if (observer)
    observer->blockPageEnded(solved_ ? QSBlockPageEnd::CaptchaSolved : QSBlockPageEnd::Closed);
}

QSWebViewController::QSWebViewController(Platform platform, std::string userAgent,
                                         std::string webDomain,
                                         std::function<std::string()> collectorUrl,
                                         std::function<void(const std::string&)> reportError)
    : platform_(std::move(platform)),
      userAgent_(std::move(userAgent)),
      webDomain_(std::move(webDomain)),
      collectorUrl_(std::move(collectorUrl)),
      reportError_(std::move(reportError)) {
  ui_ = platform_.ui;
  platform_.ui.reset();
}

void QSWebViewController::log(const std::string& line, LogLevel level) const {
  if (platform_.log) platform_.log->write(level, line);
}

void QSWebViewController::viewDidLoad() {
  auto ui = ui_.lock();
  if (!ui) {
    log("QSWebViewController: no UI on this platform, nothing to show", LogLevel::Warning);
    return;
  }
  Rect frame;
  if (platform_.device) {
    if (auto screen = platform_.device->mainScreen()) {
      frame.width = screen->width;
      frame.height = screen->height;
    }
  }
  webview_ = ui->createWebView(frame);
  if (!webview_) return;
  std::weak_ptr<QSWebViewController> weakSelf = weak_from_this();
  WebView* view = webview_.get();
  webview_->setShouldStartLoad([weakSelf, view](const std::string& url, NavigationType type) {
    auto self = weakSelf.lock();
    return self ? self->webView(*view, url, type) : true;
  });
  ui->setContent(*this, webview_);
  setUserAgent();
  loadWebView();
}

void QSWebViewController::viewWillDisappear(bool /*animated*/) {
  resetUserAgent();
  notifyEnded();
}

void QSWebViewController::setUserAgent() {
  if (!platform_.store) return;
  auto current = platform_.store->objectForKey(kUserAgentKey);
  previousUserAgent_ = current && current->is_string() ? current->get<std::string>() : "";
  platform_.store->registerDefaults(Value{{kUserAgentKey, userAgent_}});
}

void QSWebViewController::loadWebView() {
  std::string collectorUrl = collectorUrl_ ? collectorUrl_() : "";
  bool staging = collectorUrl.find("staging") != std::string::npos;
  baseUrl_ = (staging ? "http://" : "https://") + webDomain_;
  if (!webview_) return;
  webview_->loadHTMLString(blockResponse_ ? blockResponse_->pageHtml() : "", baseUrl_);
}

bool QSWebViewController::webView(WebView& /*webView*/, const std::string& url,
                                  NavigationType /*navigationType*/) {
  log("Loading URL :" + url);
  if (isCaptchaRedirectCallback(url)) {
    handleCaptchaCallback(url);
    return false;
  }
  return true;
}

bool QSWebViewController::isCaptchaRedirectCallback(const std::string& url) const {
  return url.find(baseUrl_ + "/qs/captcha_callback") != std::string::npos;
}

void QSWebViewController::handleCaptchaCallback(const std::string& url) {
  if (!captchaSuccess(url)) {
    loadWebView();
    if (auto observer = observer_) observer->captchaAttemptFailed();
    return;
  }
  solved_ = true;
  if (auto delegate = delegate_.lock()) delegate->captchaSuccess();
  if (auto ui = ui_.lock()) ui->dismiss(*this, true);
}

bool QSWebViewController::captchaSuccess(const std::string& url) {
  if (auto items = queryItems(url)) {
    for (const auto& item : *items) {
      if (item.name != "status") continue;
      log("captchaSuccess --> status: " + item.value.value_or("(null)"));
      return lenientIntegerValue(item.value.value_or("")) == 0;
    }
  }
  log(kMissingStatusMessage, LogLevel::Warning);
  if (reportError_) reportError_(kMissingStatusMessage);
  return false;
}

void QSWebViewController::resetUserAgent() {
  if (previousUserAgent_.empty() || !platform_.store) return;
  log("resetUserAgent to: " + previousUserAgent_);
  platform_.store->registerDefaults(Value{{kUserAgentKey, previousUserAgent_}});
}

}  // namespace qs

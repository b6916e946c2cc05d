#include "quarrystone/http/Protection.h"

#include <algorithm>
#include <cctype>

#include "quarrystone/QSManager.h"

namespace qs::http {

namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

}  // namespace

const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::Allowed:
      return "allowed";
    case Outcome::PassedThrough:
      return "passed-through";
    case Outcome::Blocked:
      return "blocked";
    case Outcome::CaptchaSolved:
      return "captcha-solved";
    case Outcome::CaptchaFailed:
      return "captcha-failed";
    case Outcome::ClosedByUser:
      return "closed-by-user";
    case Outcome::TimedOut:
      return "timed-out";
    case Outcome::LoopStopped:
      return "loop-stopped";
    case Outcome::NotReplayable:
      return "not-replayable";
    case Outcome::Failed:
      return "failed";
    case Outcome::Cancelled:
      return "cancelled";
  }
  return "unknown";
}

std::shared_ptr<Protection> Protection::create(QSManager& manager, GtkWindow* window,
                                               ProtectionSettings settings) {
  if (window == nullptr) return nullptr;
  for (auto& domain : settings.domains) domain = lower(domain);
  return std::shared_ptr<Protection>(
      new Protection(manager.shared_from_this(), window, std::move(settings)));
}

Protection::Protection(std::shared_ptr<QSManager> manager, GtkWindow* window,
                       ProtectionSettings settings)
    : manager_(std::move(manager)), settings_(std::move(settings)), pageThread_(g_thread_self()) {
  g_weak_ref_init(&window_, window);
}

Protection::~Protection() { g_weak_ref_clear(&window_); }

bool Protection::protects(std::string_view url) const {
  // Only an absolute http(s) URL with a host can be matched; anything else
  // is not the host's backend.
  GUri* uri = g_uri_parse(std::string(url).c_str(), G_URI_FLAGS_NONE, nullptr);
  if (uri == nullptr) return false;
  const std::string scheme = lower(g_uri_get_scheme(uri) ? g_uri_get_scheme(uri) : "");
  std::string host = lower(g_uri_get_host(uri) ? g_uri_get_host(uri) : "");
  g_uri_unref(uri);
  if ((scheme != "https" && scheme != "http") || host.empty()) return false;
  if (host.back() == '.') host.pop_back();
  return std::any_of(settings_.domains.begin(), settings_.domains.end(), [&](const auto& domain) {
    if (domain.empty()) return false;
    if (domain.front() != '.') return host == domain;
    // ".example.com": example.com itself or a name ending in ".example.com".
    return host == std::string_view(domain).substr(1) ||
           (host.size() > domain.size() &&
            host.compare(host.size() - domain.size(), domain.size(), domain) == 0);
  });
}

HeaderMap Protection::headers() const { return manager_->httpHeaders(); }

GtkWindow* Protection::window() const { return static_cast<GtkWindow*>(g_weak_ref_get(&window_)); }

bool Protection::onPageThread() const {
  return g_thread_self() == pageThread_ || g_main_context_is_owner(g_main_context_default());
}

}  // namespace qs::http

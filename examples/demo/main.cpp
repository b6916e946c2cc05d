// The demo host: a small GTK application that uses only the public API, the
// way an app developer would, and walks through the library's whole life
// against the local sandbox:
//   start -> ready -> backend allowed -> forced captcha -> backend blocked ->
//   captcha page in the web view -> fresh token -> backend allowed again.
// It prints a timeline and, given the sandbox's event log, the activities the
// sandbox decrypted. Exits 0 only if every step happened.
//
// Usage: qs-demo [--interactive] [--app-id ID] [--backend URL] [--sandbox-log PATH]
//                [--expect-renewal] [--timeout SECONDS]
// The service is found through the deployment settings' environment
// variables (QS_COLLECTOR_HOST_PATTERN, QS_WEB_DOMAIN, QS_CA_FILE, QS_STORE_PATH).
#include <gtk/gtk.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "DemoBackend.h"
#include "quarrystone/Quarrystone.h"
#include "quarrystone/gtk/GtkUI.h"
#include "quarrystone/http/CurlProtection.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  bool interactive = false;
  bool expectRenewal = false;
  std::string appId = "demo-app";
  std::string backend;
  std::string sandboxLog;
  double timeout = 30;
};

class Timeline {
 public:
  void say(const std::string& text) const {
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
    std::printf("[%9.1f ms] %s\n", ms, text.c_str());
    std::fflush(stdout);
  }

 private:
  Clock::time_point start_ = Clock::now();
};

// Records the library's callbacks; they arrive on its network thread, so the
// main loop is woken to look at them.
class DemoDelegate final : public qs::QSManagerDelegate {
 public:
  void managerReady(const qs::HeaderMap& headers) override { record(true, headers); }
  void newHeaders(const qs::HeaderMap& headers) override { record(false, headers); }

  int readyCount() const { return ready_.load(); }
  int newHeadersCount() const { return newHeaders_.load(); }
  qs::HeaderMap lastHeaders() const {
    std::lock_guard lock(mutex_);
    return last_;
  }

 private:
  void record(bool ready, const qs::HeaderMap& headers) {
    {
      std::lock_guard lock(mutex_);
      last_ = headers;
    }
    (ready ? ready_ : newHeaders_).fetch_add(1);
    g_main_context_wakeup(nullptr);
  }
  mutable std::mutex mutex_;
  qs::HeaderMap last_;
  std::atomic<int> ready_{0};
  std::atomic<int> newHeaders_{0};
};

std::string describe(const qs::HeaderMap& headers) {
  std::string text;
  for (const auto& [name, value] : headers) {
    std::string shown = value.size() > 40 ? value.substr(0, 37) + "..." : value;
    text += (text.empty() ? "" : ", ") + name + ": " + shown;
  }
  return text;
}

// Runs the main loop until `done` or `seconds` pass. True if done.
bool waitFor(const std::function<bool()>& done, double seconds) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
  guint tick = g_timeout_add(
      100, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  while (!done() && Clock::now() < deadline) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(tick);
  return done();
}

bool parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string number;
    if (arg == "--interactive") {
      options.interactive = true;
    } else if (arg == "--expect-renewal") {
      options.expectRenewal = true;
    } else if (arg == "--app-id") {
      if (!value(options.appId)) return false;
    } else if (arg == "--backend") {
      if (!value(options.backend)) return false;
    } else if (arg == "--sandbox-log") {
      if (!value(options.sandboxLog)) return false;
    } else if (arg == "--timeout") {
      if (!value(number)) return false;
      options.timeout = std::atof(number.c_str());
    } else {
      return false;
    }
  }
  return true;
}

// Prints the activities and decisions the sandbox logged.
void printSandboxLog(const std::string& path, const Timeline& timeline) {
  std::ifstream in(path);
  if (!in) {
    timeline.say("(no sandbox log at " + path + ")");
    return;
  }
  std::printf("\nWhat the sandbox saw (decrypted):\n");
  std::string line;
  while (std::getline(in, line)) {
    qs::Value event = qs::Value::parse(line, nullptr, false);
    if (event.is_discarded() || !event.is_object()) continue;
    const std::string kind = event.value("event", "");
    if (kind == "activity") {
      const qs::Value& d = event.contains("d") ? event["d"] : qs::Value();
      std::string state = d.is_object() && d.contains("QS330") ? d["QS330"].dump() : "";
      std::printf("  activity %s %s decision=%s answer=%s\n", event.value("type", "").c_str(),
                  state.c_str(), event.value("decision", "").c_str(),
                  event.contains("answer") ? event["answer"].dump().c_str() : "[]");
      if (d.is_object()) {
        std::string fields;
        for (const auto& [code, value] : d.items()) {
          std::string shown = value.dump();
          if (shown.size() > 44) shown = shown.substr(0, 41) + "...";
          fields += "      " + code + " = " + shown + "\n";
        }
        std::printf("%s", fields.c_str());
      }
    } else if (kind == "backend" || kind == "client_error" || kind == "captcha_callback") {
      std::printf("  %s %s\n", kind.c_str(), line.c_str());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: qs-demo [--interactive] [--app-id ID] [--backend URL] "
                 "[--sandbox-log PATH] [--expect-renewal] [--timeout SECONDS]\n");
    return 2;
  }
  if (!gtk_init_check()) {
    std::fprintf(stderr, "qs-demo: no display (run it under xvfb-run, or with DISPLAY set)\n");
    return 2;
  }
  Timeline timeline;
  qs::DeploymentSettings settings = qs::DeploymentSettings::fromEnvironment();
  if (options.backend.empty()) options.backend = "https://" + settings.webDomain + "/api/orders";

  // The library joins the host's GTK main loop and shows pages in its windows.
  qs::LinuxPlatformOptions platformOptions;
  platformOptions.bundle = {"1.0 demo", "Quarrystone Demo", "com.example.quarrystone.demo", {"en"}};
  platformOptions.screen = qs::ScreenInfo{1024, 768, 1};
  platformOptions.hostContext = g_main_context_default();
  // The demo keeps the library's whole trace (scripts/demo saves it).
  platformOptions.logLevel = qs::LogLevel::Debug;
  qs::Platform platform = qs::makeLinuxPlatform(settings, platformOptions);
  platform.ui = qs::makeGtkUI(platform.store);
  qs::QSManager::installPlatform(platform, settings);

  GtkWidget* window = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(window), "Quarrystone demo host");
  gtk_window_set_default_size(GTK_WINDOW(window), 480, 320);
  gtk_window_set_child(GTK_WINDOW(window), gtk_label_new("Quarrystone demo host: orders"));
  gtk_window_present(GTK_WINDOW(window));
  qs::GtkHostViewController host(GTK_WINDOW(window));

  auto delegate = std::make_shared<DemoDelegate>();
  qs::QSManager& manager = qs::QSManager::sharedInstance();
  manager.setDelegate(delegate);

  int failures = 0;
  auto check = [&](bool ok, const std::string& what) {
    timeline.say(std::string(ok ? "ok    " : "FAILED") + "  " + what);
    if (!ok) ++failures;
    return ok;
  };
  auto backend = [&](const std::string& suffix) {
    qs::URLRequest request;
    request.url = options.backend + suffix;
    manager.setHeadersForRequest(request);
    return demo::callBackend(request, settings.caFile);
  };

  timeline.say("startWith(\"" + options.appId + "\") against " +
               settings.collectorUrl(options.appId));
  manager.startWith(options.appId);
  bool ready = waitFor([&] { return delegate->readyCount() > 0; }, options.timeout);
  check(ready, "managerReady: " + describe(delegate->lastHeaders()));

  auto allowed = backend("");
  check(allowed.status == 200, "backend with the token: HTTP " + std::to_string(allowed.status) +
                                   (allowed.error.empty() ? "" : " (" + allowed.error + ")"));

  if (options.expectRenewal) {
    int before = delegate->newHeadersCount();
    bool renewed = waitFor([&] { return delegate->newHeadersCount() > before; }, options.timeout);
    check(renewed, "token renewed before it expired: " + describe(delegate->lastHeaders()));
  }

  int before = delegate->newHeadersCount();
  timeline.say("forceCaptchaToken(): the service is asked to challenge this client");
  manager.forceCaptchaToken();
  check(waitFor([&] { return delegate->newHeadersCount() > before; }, options.timeout),
        "newHeaders: " + describe(delegate->lastHeaders()));

  // The debug flags go again (they would make every later token a simulated
  // one); the sandbox backend challenges the next call itself.
  manager.resetDebugSettings();

  // The host's own call, protected in one step: the library adds the header,
  // recognises the block answer, shows the captcha over the window, waits
  // for the solve and the fresh token, and sends the request again.
  GUri* backendUri = g_uri_parse(options.backend.c_str(), G_URI_FLAGS_NONE, nullptr);
  qs::http::ProtectionSettings protectionSettings;
  protectionSettings.domains = {
      backendUri && g_uri_get_host(backendUri) ? g_uri_get_host(backendUri) : ""};
  if (backendUri) g_uri_unref(backendUri);
  const double captchaWait = options.interactive ? 600 : options.timeout;
  protectionSettings.deadline = std::chrono::milliseconds(static_cast<long>(captchaWait * 1000));
  auto protection =
      qs::http::Protection::create(manager, GTK_WINDOW(window), std::move(protectionSettings));

  // "challenge=once": the sandbox backend challenges the token it sees first
  // for this case and lets any later one through.
  const std::string url =
      options.backend + "?challenge=once&case=demo" + (options.interactive ? "" : "&autosolve=1");
  std::string body;
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, 10L);
  if (!settings.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile.c_str());
  qs::http::CurlRequest request;
  request.easy = easy;
  request.onBody = [&body](const char* data, std::size_t size) {
    body.append(data, size);
    return size;
  };
  before = delegate->newHeadersCount();
  timeline.say(options.interactive
                   ? "protected backend call: solve the captcha shown in the window"
                   : "protected backend call: the captcha is shown and solves itself");
  std::optional<qs::http::CurlResult> result;
  qs::http::performAsync(protection, std::move(request),
                         [&result](qs::http::CurlResult done) { result = std::move(done); });
  waitFor([&] { return result.has_value(); }, captchaWait + 30);
  curl_easy_cleanup(easy);
  const bool solved = result && result->outcome == qs::http::Outcome::CaptchaSolved &&
                      result->status == 200 && body.find("\"orders\"") != std::string::npos;
  check(solved, std::string("protected call: outcome ") +
                    (result ? qs::http::outcomeName(result->outcome) : "none") + ", HTTP " +
                    std::to_string(result ? result->status : 0) +
                    (result && !result->detail.empty() ? " (" + result->detail + ")" : ""));
  check(delegate->newHeadersCount() > before,
        "captcha solved, newHeaders: " + describe(delegate->lastHeaders()));

  auto again = backend("");
  check(again.status == 200, "backend with the fresh token: HTTP " + std::to_string(again.status));

  timeline.say("handleBlockResponse(nullptr): a misuse, reported to the service");
  manager.handleBlockResponse(nullptr, host);
  waitFor([] { return false; }, 0.5);  // let the report go out

  if (!options.sandboxLog.empty()) printSandboxLog(options.sandboxLog, timeline);
  gtk_window_destroy(GTK_WINDOW(window));
  std::printf("\n%s\n", failures == 0 ? "demo: every step happened" : "demo: some steps failed");
  return failures == 0 ? 0 : 1;
}

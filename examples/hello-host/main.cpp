// The smallest host: starts the library on a GLib main loop, waits for the
// manager to become ready and prints the headers it would attach to its own
// requests. Usage: qs-hello-host [APP_ID] [SECONDS]
#include <glib.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "quarrystone/Quarrystone.h"

namespace {

class HelloHost final : public qs::QSManagerDelegate {
 public:
  std::atomic<bool> done{false};
  void managerReady(const qs::HeaderMap& headers) override { print("managerReady", headers); }
  void newHeaders(const qs::HeaderMap& headers) override { print("newHeaders", headers); }

 private:
  // Called on the library's network thread: hand the result to the main loop.
  void print(const char* what, const qs::HeaderMap& headers) {
    std::string line = what;
    for (const auto& [name, value] : headers) line += " " + name + "=" + value;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    done.store(true);
    g_main_context_wakeup(nullptr);
  }
};

}  // namespace

int main(int argc, char** argv) {
  const std::string appId = argc > 1 ? argv[1] : "hello-app";
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 15;

  qs::DeploymentSettings settings = qs::DeploymentSettings::fromEnvironment();
  qs::LinuxPlatformOptions options;
  options.bundle = {"1.0", "Hello Host", "com.example.hello", {"en"}};
  options.screen = qs::ScreenInfo{1280, 800, 1};
  options.hostContext = g_main_context_default();
  qs::QSManager::installPlatform(qs::makeLinuxPlatform(settings, options), settings);

  auto host = std::make_shared<HelloHost>();
  qs::QSManager& manager = qs::QSManager::sharedInstance();
  manager.setDelegate(host);
  std::printf("starting with app id %s, collector %s\n", appId.c_str(),
              settings.collectorUrl(appId).c_str());
  manager.startWith(appId);

  bool timedOut = false;
  g_timeout_add_seconds(
      static_cast<guint>(seconds),
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &timedOut);
  while (!timedOut && !host->done.load()) g_main_context_iteration(nullptr, TRUE);
  if (timedOut) {
    std::printf("no answer within %d seconds\n", seconds);
    return 1;
  }
  for (const auto& [name, value] : manager.httpHeaders()) {
    std::printf("header %s: %s\n", name.c_str(), value.c_str());
  }
  return 0;
}

// qs-gtk-host: a small GTK host application that starts the library and calls
// its own backend through the library's libcurl protection: the call carries
// the token and, when the backend blocks it, the block or captcha page shows
// over the host's window and a solved captcha sends the call again.
//
//   qs-gtk-host APP_ID URL
//
// Where the service lives comes from the deployment settings' environment
// variables (QS_COLLECTOR_HOST_PATTERN, QS_WEB_DOMAIN, QS_CA_FILE). Exits 0
// when the call was allowed (at once or after a solved captcha), 1 otherwise,
// 2 on bad usage. Built on the installed public headers only.
#include <curl/curl.h>
#include <gtk/gtk.h>

#include <cstdio>
#include <memory>
#include <string>

#include "quarrystone/Quarrystone.h"
#include "quarrystone/gtk/GtkUI.h"
#include "quarrystone/http/CurlProtection.h"

namespace {

// Hands managerReady from the library's network thread to the GTK thread.
struct Host : qs::QSManagerDelegate {
  void managerReady(const qs::HeaderMap&) override { g_atomic_int_set(&ready, 1); }
  void newHeaders(const qs::HeaderMap&) override {}
  gint ready = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: qs-gtk-host APP_ID URL\n");
    return 2;
  }
  if (!gtk_init_check()) {
    std::fprintf(stderr, "qs-gtk-host: no display\n");
    return 1;
  }

  // The library joins GTK's main context and shows its pages in GTK windows.
  qs::DeploymentSettings settings = qs::DeploymentSettings::fromEnvironment();
  qs::LinuxPlatformOptions options;
  options.bundle = {"1.0", "qs-gtk-host", "com.example.quarrystone.gtk-host", {"en"}};
  options.hostContext = g_main_context_default();
  qs::Platform platform = qs::makeLinuxPlatform(settings, options);
  platform.ui = qs::makeGtkUI(platform.store);
  auto manager = qs::QSManager::create(platform, settings);
  auto host = std::make_shared<Host>();
  manager->setDelegate(host);

  GtkWindow* window = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(window, "Quarrystone GTK host");
  gtk_window_set_default_size(window, 480, 800);
  gtk_window_set_child(window, gtk_label_new("The host application's own screen"));
  gtk_window_present(window);

  manager->startWith(argv[1]);
  while (!g_atomic_int_get(&host->ready)) g_main_context_iteration(nullptr, TRUE);

  // The backend's host is the one declared domain: only it gets the token.
  GUri* uri = g_uri_parse(argv[2], G_URI_FLAGS_NONE, nullptr);
  if (uri == nullptr || g_uri_get_host(uri) == nullptr) {
    std::fprintf(stderr, "qs-gtk-host: %s is not a URL\n", argv[2]);
    return 2;
  }
  auto protection = qs::http::Protection::create(*manager, window, {{g_uri_get_host(uri)}});
  g_uri_unref(uri);

  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, argv[2]);
  if (!settings.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile.c_str());
  qs::http::CurlRequest request;
  request.easy = easy;
  request.onBody = [](const char*, std::size_t size) { return size; };
  bool done = false;
  int exitCode = 1;
  qs::http::performAsync(protection, std::move(request), [&](qs::http::CurlResult result) {
    std::printf("backend: %s, HTTP %ld\n", qs::http::outcomeName(result.outcome), result.status);
    const bool allowed = result.outcome == qs::http::Outcome::Allowed ||
                         result.outcome == qs::http::Outcome::CaptchaSolved;
    exitCode = allowed ? 0 : 1;
    done = true;
  });
  while (!done) g_main_context_iteration(nullptr, TRUE);
  curl_easy_cleanup(easy);
  return exitCode;
}

// qs-gtk-host: a small GTK host application that starts the library, calls its
// own backend with the library's headers and, when the backend blocks the
// call, shows the block or captcha page over its window.
//
//   qs-gtk-host APP_ID URL
//
// Where the service lives comes from the deployment settings' environment
// variables (QS_COLLECTOR_HOST_PATTERN, QS_WEB_DOMAIN, QS_CA_FILE). Exits 0
// when the call was allowed or a solved captcha brought new headers, 1 when
// the answer was not the service's or the window was closed, 2 on bad usage.
// Built on the installed public headers only.
#include <gtk/gtk.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "quarrystone/Quarrystone.h"
#include "quarrystone/gtk/GtkUI.h"

namespace {

// Everything below runs on the GTK thread; the manager's delegate calls come
// from its network thread and are handed over with g_idle_add.
struct Host : qs::QSManagerDelegate, std::enable_shared_from_this<Host> {
  std::string url;
  std::shared_ptr<qs::QSManager> manager;
  std::shared_ptr<qs::HttpClient> http;
  std::unique_ptr<qs::GtkHostViewController> screen;
  bool pageShown = false;
  bool done = false;
  int exitCode = 1;

  void managerReady(const qs::HeaderMap&) override { onMain(&Host::callBackend); }
  void newHeaders(const qs::HeaderMap& headers) override {
    for (const auto& [name, value] : headers)
      std::printf("new header %s: %s\n", name.c_str(), value.c_str());
    onMain(&Host::newHeadersArrived);
  }

  void onMain(void (Host::*step)()) {
    struct Call {
      Host* host;
      void (Host::*step)();
    };
    g_idle_add_once(
        [](gpointer data) {
          std::unique_ptr<Call> call(static_cast<Call*>(data));
          (call->host->*call->step)();
        },
        new Call{this, step});
  }

  void callBackend() {
    qs::HttpRequest request;
    request.url = url;
    for (const auto& [name, value] : manager->httpHeaders()) {
      request.headers.emplace_back(name, value);
    }
    // The completion holds the host, so it outlives a request in flight.
    http->send(request, [self = shared_from_this()](std::optional<std::string> body,
                                                    std::optional<qs::HttpResponse> response,
                                                    std::optional<qs::HttpError> error) {
      {
        std::lock_guard lock(self->answerMutex);
        self->answer = {error || !response ? 0 : response->statusCode, body.value_or("")};
      }
      self->onMain(&Host::answered);
    });
  }

  void answered() {
    std::pair<long, std::string> answered;
    {
      std::lock_guard lock(answerMutex);
      answered = answer;
    }
    const auto& [status, body] = answered;
    std::printf("backend: HTTP %ld\n", status);
    if (status != manager->blockCode()) {
      finish(status >= 200 && status < 300 ? 0 : 1);
      return;
    }
    qs::Value json = qs::Value::parse(body, nullptr, /*allow_exceptions=*/false);
    auto block = manager->checkError(json.is_discarded() ? qs::Value::object() : json);
    if (block->type() == qs::QSBlockResponseTypeForeign) {
      std::printf("the answer is not a block or captcha page\n");
      finish(1);
      return;
    }
    pageShown = true;
    manager->handleBlockResponse(block, *screen);
  }

  void newHeadersArrived() {
    if (pageShown) finish(0);  // the captcha was solved
  }

  void finish(int code) {
    exitCode = code;
    done = true;
  }

  std::mutex answerMutex;
  std::pair<long, std::string> answer;  // guarded by answerMutex
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

  auto host = std::make_shared<Host>();
  host->url = argv[2];
  host->http = platform.http;
  host->manager = qs::QSManager::create(platform, settings);

  GtkWindow* window = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(window, "Quarrystone GTK host");
  gtk_window_set_default_size(window, 480, 800);
  gtk_window_set_child(window, gtk_label_new("The host application's own screen"));
  g_signal_connect_swapped(window, "close-request", G_CALLBACK(+[](Host* self) -> gboolean {
                             self->finish(1);
                             return FALSE;
                           }),
                           host.get());
  gtk_window_present(window);
  host->screen = std::make_unique<qs::GtkHostViewController>(window);

  host->manager->setDelegate(host);
  host->manager->startWith(argv[1]);
  while (!host->done) g_main_context_iteration(nullptr, TRUE);
  return host->exitCode;
}

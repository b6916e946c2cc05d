// qs-gtk-host: a small GTK host application that shows the library's block or
// captcha page for a block answer of the host's backend.
//
//   qs-gtk-host ANSWER.json      a block answer saved to a file
//   qs-gtk-host URL              fetched with GET from a backend (any status)
//
// The service's web domain comes from QS_WEB_DOMAIN, a test CA from
// QS_CA_FILE. Exits 0 when the captcha is solved or the host window is
// closed, 1 when the answer is not a block or captcha page or cannot be read.
#include <gtk/gtk.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "GtkUI.h"
#include "block/QSWebViewController.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/LinuxPlatform.h"

namespace {

// Everything the host runs lives on the GTK thread, whose default main
// context is also the library's main loop.
struct Host {
  qs::Platform platform;
  qs::DeploymentSettings settings;
  GtkWindow* window = nullptr;
  std::unique_ptr<qs::GtkHostViewController> hostController;
  std::shared_ptr<qs::QSWebViewDelegate> delegate;
  bool done = false;
  int status = 0;
};

class PrintingDelegate final : public qs::QSWebViewDelegate {
 public:
  explicit PrintingDelegate(Host& host) : host_(host) {}
  void captchaSuccess() override {
    std::cout << "captcha solved: a host would now wait for new headers" << std::endl;
    host_.done = true;
  }

 private:
  Host& host_;  // weak
};

void fail(Host& host, const std::string& message) {
  std::cerr << "qs-gtk-host: " << message << std::endl;
  host.status = 1;
  host.done = true;
}

void show(Host& host, const std::string& body) {
  qs::Value json = qs::Value::parse(body, nullptr, /*allow_exceptions=*/false);
  auto response = std::make_shared<qs::QSBlockResponse>(json);
  if (response->type() == qs::QSBlockResponseTypeForeign) {
    fail(host, "the answer is not a block or captcha page");
    return;
  }
  std::string collectorUrl = response->collectorUrl().empty()
                                 ? host.settings.collectorUrl(response->appId())
                                 : response->collectorUrl();
  auto log = host.platform.log;
  auto controller = std::make_shared<qs::QSWebViewController>(
      host.platform, qs::QSNetworkManager::userAgent(*host.platform.device),
      host.settings.webDomain, [collectorUrl] { return collectorUrl; },
      [log](const std::string& message) { log->write("client error report: " + message); });
  controller->setDelegate(host.delegate);
  controller->setBlockResponse(response);
  host.platform.ui->present(controller, *host.hostController, true);
}

std::string readFile(const std::string& path, bool& ok) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  ok = static_cast<bool>(in);
  return text.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: qs-gtk-host ANSWER.json | URL" << std::endl;
    return 2;
  }
  if (!gtk_init_check()) {
    std::cerr << "qs-gtk-host: no display" << std::endl;
    return 1;
  }

  Host host;
  host.settings = qs::DeploymentSettings::fromEnvironment();
  host.platform.log = qs::makeStderrLog();
  host.platform.mainLoop = qs::makeGlibMainLoop(g_main_context_default());
  qs::BundleInfo bundle{"1.0", "qs-gtk-host", "net.quarrystone.example.gtk-host", {"en"}};
  host.platform.store = qs::openSqliteStore(
      host.settings.resolvedStorePath(*bundle.identifier).value_or(""), host.platform.log);
  host.platform.device = qs::makeLinuxDeviceInfo(bundle, qs::ScreenInfo{414, 736, 1});
  host.platform.ui = qs::makeGtkUI(host.platform.store);
  host.delegate = std::make_shared<PrintingDelegate>(host);

  host.window = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(host.window, "Quarrystone GTK host");
  gtk_window_set_default_size(host.window, 480, 800);
  gtk_window_set_child(host.window, gtk_label_new("The host application's own screen"));
  g_signal_connect(host.window, "close-request",
                   G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
                     static_cast<Host*>(data)->done = true;
                     return FALSE;
                   }),
                   &host);
  gtk_window_present(host.window);
  host.hostController = std::make_unique<qs::GtkHostViewController>(host.window);

  const std::string source = argv[1];
  if (source.rfind("http://", 0) == 0 || source.rfind("https://", 0) == 0) {
    host.platform.http = qs::makeCurlHttpClient(host.settings.caFile, host.platform.log);
    qs::HttpRequest request;
    request.url = source;
    request.headers.emplace_back("Accept", "application/json");
    // The answer arrives on the HTTP client's thread; the page is shown on
    // the GTK thread.
    auto loop = host.platform.mainLoop;
    host.platform.http->send(
        request, [&host, loop](std::optional<std::string> body, std::optional<qs::HttpResponse>,
                               std::optional<qs::HttpError> error) {
          loop->dispatchAsync([&host, body = std::move(body), error = std::move(error)] {
            if (error) {
              fail(host, "fetching the answer failed: " + error->localizedDescription);
            } else {
              show(host, body.value_or(""));
            }
          });
        });
  } else {
    bool ok = false;
    std::string body = readFile(source, ok);
    if (!ok) {
      std::cerr << "qs-gtk-host: cannot read " << source << std::endl;
      return 1;
    }
    show(host, body);
  }

  while (!host.done) g_main_context_iteration(nullptr, TRUE);
  host.platform.ui.reset();
  gtk_window_destroy(host.window);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  return host.status;
}

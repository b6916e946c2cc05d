#pragma once

// The host side of the HTTP integration tests: one sandbox and one manager
// started with the GTK UI on the default context (the GTK thread), shared by
// a whole suite; each case keys its backend requests with its own "case".
// Made and used on the GTK thread. The manager is never destroyed: the
// platform's threads may run until the process ends.

#include <gtk/gtk.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "SandboxProcess.h"
#include "XvfbDisplay.h"
#include "quarrystone/gtk/GtkUI.h"

namespace qs::testing {

class SandboxGtkHost {
 public:
  // Starts the sandbox, then the manager for `appId` as the app `hostName`,
  // and waits for it to be ready; ready() says whether all of that worked.
  SandboxGtkHost(const std::string& hostName, const std::string& appId)
      : dir_(std::make_unique<TempDir>()),
        sandbox_(std::make_unique<SandboxProcess>(dir_->path(), std::vector<std::string>{})) {
    if (sandbox_->port() == 0) return;
    const auto settings = sandbox_->settings((dir_->path() / "store.sqlite").string());
    LinuxPlatformOptions options;
    options.bundle = {"1.0", hostName, "com.example." + hostName, {"en"}};
    options.hostContext = g_main_context_default();
    Platform platform = makeLinuxPlatform(settings, options);
    platform.ui = makeGtkUI(platform.store);
    manager_ = QSManager::create(platform, settings);
    manager_->setDelegate(delegate_);
    manager_->startWith(appId);
    ready_ = test::iterateUntil([this] { return delegate_->ready.load(); });
  }

  bool ready() const { return ready_; }
  QSManager& manager() const { return *manager_; }
  const SandboxProcess& sandbox() const { return *sandbox_; }
  // Stops the sandbox and removes its files; the manager stays.
  void stopSandbox() {
    sandbox_.reset();
    dir_.reset();
  }

  // The backend requests of one case, in order.
  std::vector<Value> backendEvents(const std::string& caseKey) const {
    std::vector<Value> found;
    for (auto& event : sandbox_->events()) {
      if (event.value("event", "") == "backend" && event.value("case", "") == caseKey) {
        found.push_back(std::move(event));
      }
    }
    return found;
  }

  // The visible block or captcha page over `window`, if one is up (not a new
  // reference: the toolkit's list of windows holds it).
  static GtkWindow* pageOver(GtkWindow* window) {
    GListModel* toplevels = gtk_window_get_toplevels();
    GtkWindow* page = nullptr;
    for (guint i = 0; i < g_list_model_get_n_items(toplevels) && page == nullptr; ++i) {
      auto* candidate = GTK_WINDOW(g_list_model_get_item(toplevels, i));
      if (gtk_window_get_transient_for(candidate) == window &&
          gtk_widget_get_visible(GTK_WIDGET(candidate))) {
        page = candidate;
      }
      g_object_unref(candidate);
    }
    return page;
  }
  // Closes `page` as its close control does; held meanwhile, as the window
  // goes away inside the call.
  static bool closePage(GtkWindow* page) {
    g_object_ref(page);
    const bool done = gtk_widget_activate_action(GTK_WIDGET(page), "window.close", nullptr);
    g_object_unref(page);
    return done;
  }

 private:
  struct ReadyDelegate final : QSManagerDelegate {
    void managerReady(const HeaderMap&) override { ready = true; }
    void newHeaders(const HeaderMap&) override {}
    std::atomic<bool> ready{false};
  };

  std::unique_ptr<TempDir> dir_;
  std::unique_ptr<SandboxProcess> sandbox_;
  std::shared_ptr<ReadyDelegate> delegate_ = std::make_shared<ReadyDelegate>();
  std::shared_ptr<QSManager> manager_;
  bool ready_ = false;
};

}  // namespace qs::testing

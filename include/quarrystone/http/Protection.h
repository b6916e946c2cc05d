#pragma once

#include <gtk/gtk.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quarrystone/Value.h"

namespace qs {
class QSManager;
}

namespace qs::http {

// How a protected request ended. The response the host receives is the last
// one the backend sent: the retried request's after a solve, otherwise the
// first.
enum class Outcome {
  Allowed,        // sent with the headers; the backend did not block it
  PassedThrough,  // not for a declared domain, or a refusal that is not the
                  // service's block (or is broken): untouched, no page shown
  Blocked,        // the service's block page is shown; the block answer is returned
  CaptchaSolved,  // the captcha was solved and the request sent once more
  CaptchaFailed,  // the page ended without a fresh token although it was
                  // answered: the last answer was wrong, or the solve brought
                  // no new token before the deadline
  ClosedByUser,   // the captcha page was closed without an answer
  TimedOut,       // the deadline passed with the page on screen; it was closed
  LoopStopped,    // the request, retried after a solve, was blocked again: not
                  // retried a second time, and reported to the service
  NotReplayable,  // solved, but the request's body cannot be sent again; the
                  // block answer is returned and the host may send it anew
  Failed,         // the transfer failed, or the call was refused (see error)
  Cancelled,      // the host cancelled the request
};

// "allowed", "passed-through", ... for logs and the C API.
const char* outcomeName(Outcome outcome);

struct ProtectionSettings {
  // The host names of the host's own backend. "api.example.com" matches that
  // host; ".example.com" matches example.com and every name under it.
  // Requests to any other host get no header and no block handling.
  std::vector<std::string> domains;
  // How long a captcha may stay on screen, from the block answer to the
  // fresh token, before the page is closed and the request ends TimedOut.
  std::chrono::milliseconds deadline = std::chrono::minutes(5);
};

// What protected requests share: the manager whose headers they carry, the
// host window the block and captcha pages are shown over, and the declared
// domains. The manager's platform must have the GTK UI, running on the
// thread of the default GLib main context (the GTK thread).
// Create on the GTK thread; use from any thread. Holds the window weakly.
class Protection {
 public:
  // Null when `window` is null.
  static std::shared_ptr<Protection> create(QSManager& manager, GtkWindow* window,
                                            ProtectionSettings settings);
  ~Protection();
  Protection(const Protection&) = delete;
  Protection& operator=(const Protection&) = delete;

  // Whether `url` goes to a declared domain (https or http, any port).
  bool protects(std::string_view url) const;
  // The manager's current headers.
  HeaderMap headers() const;
  QSManager& manager() const { return *manager_; }
  const ProtectionSettings& settings() const { return settings_; }
  // A new reference to the host window (g_object_unref it), null once gone.
  GtkWindow* window() const;
  // True on the thread that shows the pages (the GTK thread): a blocking
  // call made there could never see its page answered.
  bool onPageThread() const;

 private:
  Protection(std::shared_ptr<QSManager> manager, GtkWindow* window, ProtectionSettings settings);

  const std::shared_ptr<QSManager> manager_;
  const ProtectionSettings settings_;
  mutable GWeakRef window_;
  const GThread* const pageThread_;  // the creating thread
};

}  // namespace qs::http

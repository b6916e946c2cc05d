#pragma once

#include <glib.h>

#include <functional>
#include <memory>
#include <string>

#include "quarrystone/Value.h"
#include "quarrystone/http/Protection.h"

namespace qs::http {

// Runs `task` on `context` from its loop, never inline: the caller's state is
// settled before it runs. Any thread.
void post(GMainContext* context, std::function<void()> task);

// One answer of the backend, as far as the flow needs to see it.
struct BackendAnswer {
  bool transferred = false;  // false: the transfer failed or was cancelled
  long status = 0;
  // The body, kept by the transport only when the status is the manager's
  // block code (the only answers that can be the service's block).
  std::string blockBody;
};

// Sends the host's request for the flow, once or (after a solve) twice, and
// keeps each answer for the host. Implemented per HTTP stack.
class Transport {
 public:
  virtual ~Transport() = default;
  // Sends the request with `headers` set (replacing any of the same names)
  // and calls `done` once, on the flow's context.
  virtual void send(const HeaderMap& headers, std::function<void(BackendAnswer)> done) = 0;
  // Whether the request can be sent a second time.
  virtual bool replayable() const = 0;
};

// A protected request from its first answer to its outcome. Runs on the
// thread-default GLib context of the thread that starts it (the flow's
// context); the pages are shown on the GTK thread's default context. It
// recognises the service's block in a block-code answer, shows the page over
// the host window, waits for the page's end or the deadline, then for the
// fresh token after a solve, and sends the request once more.
class ChallengeFlow {
 public:
  using Finished = std::function<void(Outcome outcome, const std::string& detail)>;
  // `finished` is called once on the flow's context. The returned handle
  // cancels (from the flow's context): an open page is closed and the
  // outcome is Cancelled, unless the flow has already ended.
  static std::function<void()> start(std::shared_ptr<Protection> protection,
                                     std::shared_ptr<Transport> transport, Finished finished);
};

}  // namespace qs::http

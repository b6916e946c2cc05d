// The C interface's HTTP entry points (include/quarrystone_http.h), built
// into the optional HTTP component over the C++ libcurl protection. Each runs
// its body through guarded(), as the core's entry points do.

#include <glib.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "c/CHandles.h"
#include "c/CallGuard.h"
#include "quarrystone/http/CurlProtection.h"
#include "quarrystone_http.h"

struct qs_protection_t {
  std::shared_ptr<qs::http::Protection> protection;
};

namespace qs::c {
namespace {

using http::Outcome;
constexpr Outcome kOutcomes[] = {
    Outcome::Allowed,       Outcome::PassedThrough, Outcome::Blocked,  Outcome::CaptchaSolved,
    Outcome::CaptchaFailed, Outcome::ClosedByUser,  Outcome::TimedOut, Outcome::LoopStopped,
    Outcome::NotReplayable, Outcome::Failed,        Outcome::Cancelled};

// The C values are fixed; the C++ enumerators may move.
qs_http_outcome_t toC(http::Outcome outcome) {
  switch (outcome) {
    case http::Outcome::Allowed:
      return QS_HTTP_ALLOWED;
    case http::Outcome::PassedThrough:
      return QS_HTTP_PASSED_THROUGH;
    case http::Outcome::Blocked:
      return QS_HTTP_BLOCKED;
    case http::Outcome::CaptchaSolved:
      return QS_HTTP_CAPTCHA_SOLVED;
    case http::Outcome::CaptchaFailed:
      return QS_HTTP_CAPTCHA_FAILED;
    case http::Outcome::ClosedByUser:
      return QS_HTTP_CLOSED_BY_USER;
    case http::Outcome::TimedOut:
      return QS_HTTP_TIMED_OUT;
    case http::Outcome::LoopStopped:
      return QS_HTTP_LOOP_STOPPED;
    case http::Outcome::NotReplayable:
      return QS_HTTP_NOT_REPLAYABLE;
    case http::Outcome::Failed:
      return QS_HTTP_FAILED;
    case http::Outcome::Cancelled:
      return QS_HTTP_CANCELLED;
  }
  return QS_HTTP_FAILED;
}

// The host's libcurl callbacks as the C++ request takes them. Pausing would
// stall a transfer the host cannot resume, so a pause aborts it.
struct HostCallbacks {
  curl_write_callback write;
  void* writeData;
  curl_write_callback header;
  void* headerData;
  curl_read_callback read;
  curl_seek_callback seek;
  void* readData;

  http::CurlRequest request(CURL* easy, const curl_slist* headers) const {
    http::CurlRequest r;
    r.easy = easy;
    r.headers = const_cast<curl_slist*>(headers);  // read only, as the request says
    auto sink = [](curl_write_callback fn, void* data) {
      return [fn, data](const char* bytes, std::size_t size) {
        const std::size_t taken = fn(const_cast<char*>(bytes), 1, size, data);
        return taken == CURL_WRITEFUNC_PAUSE ? 0 : taken;
      };
    };
    if (write) r.onBody = sink(write, writeData);
    if (header) r.onHeader = sink(header, headerData);
    if (read) {
      r.read = [fn = read, data = readData](char* buffer, std::size_t size) {
        const std::size_t given = fn(buffer, 1, size, data);
        return given == CURL_READFUNC_PAUSE ? CURL_READFUNC_ABORT : given;
      };
      if (seek) {
        r.rewind = [fn = seek, data = readData] {
          return fn(data, 0, SEEK_SET) == CURL_SEEKFUNC_OK;
        };
      }
    }
    return r;
  }
};

// Why a request ended QS_HTTP_FAILED, with libcurl's reason when it has one.
std::string failure(const http::CurlResult& result) {
  if (result.code == CURLE_OK) return result.detail;
  return result.detail + ": " + curl_easy_strerror(result.code);
}

// Runs `work` on `context` from a later iteration, whichever thread asks:
// invoking it at once could run it on a thread that merely shares the
// default context.
void later(GMainContext* context, std::function<void()> work) {
  GSource* idle = g_idle_source_new();
  g_source_set_callback(
      idle,
      [](gpointer data) {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(work)),
      [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  g_source_attach(idle, context);
  g_source_unref(idle);
}

// An asynchronous request, shared by the host's handle, the completion and
// cancels on their way. The completion and the cancels run on the request's
// context; the mutex covers the start, which may run on another thread that
// shares the default context.
class AsyncCall {
 public:
  AsyncCall(qs_curl_done_fn done, void* doneData)
      : context_(g_main_context_ref_thread_default()), done_(done), doneData_(doneData) {}
  ~AsyncCall() { g_main_context_unref(context_); }
  AsyncCall(const AsyncCall&) = delete;
  AsyncCall& operator=(const AsyncCall&) = delete;

  GMainContext* context() const { return context_; }

  // Keeps the cancel function unless the request already ended.
  void started(std::function<void()> cancel) {
    std::lock_guard lock(mutex_);
    starting_ = false;
    if (!finished_) cancel_ = std::move(cancel);
  }

  void cancel() {
    std::function<void()> cancel;
    {
      std::lock_guard lock(mutex_);
      cancel = std::exchange(cancel_, nullptr);
    }
    if (cancel) cancel();
  }

  // Hands the outcome to the host; never inside qs_curl_perform_async.
  static void finish(const std::shared_ptr<AsyncCall>& self, http::CurlResult result) {
    bool starting;
    {
      std::lock_guard lock(self->mutex_);
      self->finished_ = true;
      starting = self->starting_;
      self->cancel_ = nullptr;  // it holds the request, which holds this call
    }
    auto deliver = [self, result = std::move(result)] {
      // A callback written in C++ must not throw into the library's loop.
      try {
        self->done_(self->doneData_, toC(result.outcome), result.status, result.code,
                    result.detail.c_str());
      } catch (...) {
      }
    };
    if (starting) return later(self->context_, std::move(deliver));
    deliver();
  }

 private:
  GMainContext* const context_;  // the caller's thread-default; a reference
  const qs_curl_done_fn done_;
  void* const doneData_;
  std::mutex mutex_;
  bool starting_ = true;          // guarded by mutex_
  bool finished_ = false;         // guarded by mutex_
  std::function<void()> cancel_;  // guarded by mutex_
};

}  // namespace
}  // namespace qs::c

struct qs_curl_call_t {
  std::shared_ptr<qs::c::AsyncCall> call;
};

using qs::c::guarded;
using qs::c::require;

extern "C" {

const char* qs_http_outcome_name(qs_http_outcome_t outcome) {
  for (const auto known : qs::c::kOutcomes) {
    if (qs::c::toC(known) == outcome) return qs::http::outcomeName(known);
  }
  return "unknown";
}

qs_status_t qs_protection_create(qs_manager_t* manager, GtkWindow* window,
                                 const char* const* domains, size_t domain_count,
                                 uint32_t deadline_ms, qs_protection_t** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    require(manager, "manager");
    require(window, "window");
    if (domain_count > 0) require(domains, "domains");
    qs::http::ProtectionSettings settings;
    for (size_t i = 0; i < domain_count; ++i) {
      require(domains[i], ("domains[" + std::to_string(i) + "]").c_str());
      settings.domains.emplace_back(domains[i]);
    }
    if (deadline_ms > 0) settings.deadline = std::chrono::milliseconds(deadline_ms);
    auto handle = std::make_unique<qs_protection_t>();
    handle->protection =
        qs::http::Protection::create(*manager->manager, window, std::move(settings));
    *out = handle.release();
    return QS_OK;
  });
}

void qs_protection_free(qs_protection_t* protection) { delete protection; }

qs_status_t qs_curl_perform(qs_protection_t* protection, CURL* easy,
                            const struct curl_slist* headers, curl_write_callback write_fn,
                            void* write_data, curl_write_callback header_fn, void* header_data,
                            curl_read_callback read_fn, curl_seek_callback seek_fn, void* read_data,
                            qs_http_outcome_t* outcome, long* http_status) {
  return guarded(__func__, [&] {
    require(outcome, "outcome");
    require(http_status, "http_status");
    *outcome = QS_HTTP_FAILED;
    *http_status = 0;
    require(protection, "protection");
    require(easy, "easy");
    if (protection->protection->onPageThread()) {
      throw qs::c::CallError(QS_ERROR_WRONG_THREAD,
                             "it blocks, and this is the GTK thread, which must show the page; "
                             "use qs_curl_perform_async there");
    }
    const qs::c::HostCallbacks callbacks{write_fn, write_data, header_fn, header_data,
                                         read_fn,  seek_fn,    read_data};
    const auto result = qs::http::perform(protection->protection, callbacks.request(easy, headers));
    *outcome = qs::c::toC(result.outcome);
    *http_status = result.status;
    if (result.outcome == qs::http::Outcome::Failed) {
      throw qs::c::CallError(QS_ERROR_REQUEST_FAILED, qs::c::failure(result));
    }
    return QS_OK;
  });
}

qs_status_t qs_curl_perform_async(qs_protection_t* protection, CURL* easy,
                                  const struct curl_slist* headers, curl_write_callback write_fn,
                                  void* write_data, curl_write_callback header_fn,
                                  void* header_data, curl_read_callback read_fn,
                                  curl_seek_callback seek_fn, void* read_data, qs_curl_done_fn done,
                                  void* done_data, qs_curl_call_t** call) {
  return guarded(__func__, [&] {
    if (call != nullptr) *call = nullptr;
    require(protection, "protection");
    require(easy, "easy");
    if (done == nullptr) throw qs::c::CallError(QS_ERROR_NULL_ARGUMENT, "done is NULL");
    const qs::c::HostCallbacks callbacks{write_fn, write_data, header_fn, header_data,
                                         read_fn,  seek_fn,    read_data};
    auto state = std::make_shared<qs::c::AsyncCall>(done, done_data);
    // Allocated first: once the request is under way nothing may fail.
    auto handle = call ? std::make_unique<qs_curl_call_t>(qs_curl_call_t{state}) : nullptr;
    state->started(qs::http::performAsync(protection->protection, callbacks.request(easy, headers),
                                          [state](qs::http::CurlResult result) {
                                            qs::c::AsyncCall::finish(state, std::move(result));
                                          }));
    if (call != nullptr) *call = handle.release();
    return QS_OK;
  });
}

qs_status_t qs_curl_cancel(qs_curl_call_t* call) {
  return guarded(__func__, [&] {
    require(call, "call");
    qs::c::later(call->call->context(), [state = call->call] { state->cancel(); });
    return QS_OK;
  });
}

void qs_curl_call_free(qs_curl_call_t* call) { delete call; }

}  // extern "C"

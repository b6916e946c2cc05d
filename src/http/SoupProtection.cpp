#include "quarrystone/http/SoupProtection.h"

#include <cstdio>
#include <map>
#include <string_view>
#include <utility>

#include "ChallengeFlow.h"
#include "quarrystone/QSManager.h"

namespace qs::http {

namespace {

constexpr const char* kLogDomain = "quarrystone-http";
constexpr const char* kBodyKey = "qs-replayable-body";
constexpr const char* kSendKey = "qs-protected-send";  // set while sendAndReadAsync owns it
constexpr const char* kRedirectGuardKey = "qs-redirect-guard";
constexpr const char* kAttachmentKey = "qs-attachment";
// The largest block answer the attached form reads from its logger tap; a
// longer one is cut by the logger, fails to parse and passes through.
constexpr int kMaxBlockBody = 256 * 1024;

std::string uriOf(SoupMessage* message) {
  char* text = g_uri_to_string(soup_message_get_uri(message));
  std::string uri = text != nullptr ? text : "";
  g_free(text);
  return uri;
}

void setHeaders(SoupMessage* message, const HeaderMap& headers) {
  SoupMessageHeaders* request = soup_message_get_request_headers(message);
  for (const auto& [name, value] : headers) {
    soup_message_headers_replace(request, name.c_str(), value.c_str());
  }
}

// libsoup follows redirects itself: when one leads away from the declared
// domains, the library's headers are taken off before the message goes on.
// Connected once per message; holds the protection until the message goes.
void guardRedirects(SoupMessage* message, const std::shared_ptr<Protection>& protection) {
  if (g_object_get_data(G_OBJECT(message), kRedirectGuardKey) != nullptr) return;
  g_object_set_data(G_OBJECT(message), kRedirectGuardKey, GINT_TO_POINTER(1));
  g_signal_connect_data(
      message, "restarted", G_CALLBACK(+[](SoupMessage* m, gpointer data) {
        const auto& p = *static_cast<std::shared_ptr<Protection>*>(data);
        if (p->protects(uriOf(m))) return;
        SoupMessageHeaders* request = soup_message_get_request_headers(m);
        for (const auto& [name, value] : p->headers()) {
          soup_message_headers_remove(request, name.c_str());
        }
      }),
      new std::shared_ptr<Protection>(protection),
      [](gpointer data, GClosure*) { delete static_cast<std::shared_ptr<Protection>*>(data); },
      GConnectFlags{});
}

// A body the host handed to setReplayableBody(), kept on its message.
struct ReplayableBody {
  GBytes* bytes = nullptr;         // one reference; or else
  GInputStream* stream = nullptr;  // one reference
  goffset start = 0;
  gssize length = -1;
  ~ReplayableBody() {
    if (bytes != nullptr) g_bytes_unref(bytes);
    if (stream != nullptr) g_object_unref(stream);
  }

  bool replayable() const {
    return bytes != nullptr || (G_IS_SEEKABLE(stream) && g_seekable_can_seek(G_SEEKABLE(stream)));
  }

  // Sets the body on `message`. libsoup closes a body stream once it has
  // sent it, so the host's stream goes in through a wrapper that leaves it
  // open; a second send seeks it back first. False when that fails.
  bool apply(SoupMessage* message, const char* contentType, bool again) const {
    if (bytes != nullptr) {
      soup_message_set_request_body_from_bytes(message, contentType, bytes);
      return true;
    }
    if (again && (!replayable() ||
                  !g_seekable_seek(G_SEEKABLE(stream), start, G_SEEK_SET, nullptr, nullptr))) {
      return false;
    }
    GInputStream* wrapper = g_buffered_input_stream_new(stream);
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(wrapper), FALSE);
    soup_message_set_request_body(message, contentType, wrapper, length);
    g_object_unref(wrapper);
    return true;
  }
};

const ReplayableBody* replayableBody(SoupMessage* message) {
  return static_cast<const ReplayableBody*>(g_object_get_data(G_OBJECT(message), kBodyKey));
}

bool hasBody(SoupMessage* message) {
  SoupMessageHeaders* request = soup_message_get_request_headers(message);
  switch (soup_message_headers_get_encoding(request)) {
    case SOUP_ENCODING_NONE:
      return false;
    case SOUP_ENCODING_CONTENT_LENGTH:
      return soup_message_headers_get_content_length(request) > 0;
    default:
      return true;
  }
}

void keepBody(SoupMessage* message, ReplayableBody* body) {
  g_object_set_data_full(G_OBJECT(message), kBodyKey, body,
                         [](gpointer data) { delete static_cast<ReplayableBody*>(data); });
}

// ---------------------------------------------------------------------------
// The protected send.

// Sends the host's message for the flow, once or twice, and keeps the last
// answer's body for the host. Flow's context only (the caller's).
class SoupTransport final : public Transport, public std::enable_shared_from_this<SoupTransport> {
 public:
  SoupTransport(std::shared_ptr<Protection> protection, SoupSession* session, SoupMessage* message,
                int priority, GCancellable* cancellable)
      : protection_(std::move(protection)),
        session_(SOUP_SESSION(g_object_ref(session))),
        message_(SOUP_MESSAGE(g_object_ref(message))),
        cancellable_(cancellable != nullptr ? G_CANCELLABLE(g_object_ref(cancellable)) : nullptr),
        priority_(priority),
        blockCode_(static_cast<long>(protection_->manager().blockCode())) {}
  ~SoupTransport() override {
    clearAnswer();
    if (cancellable_ != nullptr) g_object_unref(cancellable_);
    g_object_unref(message_);
    g_object_unref(session_);
  }
  SoupTransport(const SoupTransport&) = delete;
  SoupTransport& operator=(const SoupTransport&) = delete;

  void send(const HeaderMap& headers, std::function<void(BackendAnswer)> done) override {
    setHeaders(message_, headers);
    clearAnswer();
    if (sends_++ > 0) {
      const ReplayableBody* body = replayableBody(message_);
      if (body != nullptr && !body->apply(message_, nullptr, /*again=*/true)) {
        g_set_error(&error_, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED,
                    "the request body could not be rewound");
        return done(BackendAnswer{});
      }
    }
    done_ = std::move(done);
    busy_ = true;
    soup_session_send_and_read_async(session_, message_, priority_, cancellable_, onSent,
                                     new std::shared_ptr<SoupTransport>(shared_from_this()));
  }

  bool replayable() const override {
    const ReplayableBody* body = replayableBody(message_);
    return body != nullptr ? body->replayable() : !hasBody(message_);
  }

  // Runs `then` once no send is under way: the host may reuse the message
  // as soon as it has its answer.
  void whenIdle(std::function<void()> then) {
    if (!busy_) return then();
    pending_ = std::move(then);
  }

  // Hands the last answer to the host's task (see sendAndReadFinish).
  void deliver(GTask* task, Outcome outcome, const std::string& detail) {
    if (outcome == Outcome::Failed && g_cancellable_is_cancelled(cancellable_)) {
      outcome = Outcome::Cancelled;
    }
    *static_cast<Outcome*>(g_task_get_task_data(task)) = outcome;
    g_object_set_data(G_OBJECT(message_), kSendKey, nullptr);
    if (outcome == Outcome::Cancelled) {
      g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_CANCELLED, "cancelled by the host");
    } else if (outcome == Outcome::Failed || bytes_ == nullptr) {
      if (error_ != nullptr) return g_task_return_error(task, std::exchange(error_, nullptr));
      g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_FAILED, "%s", detail.c_str());
    } else {
      g_task_return_pointer(task, g_bytes_ref(bytes_),
                            reinterpret_cast<GDestroyNotify>(g_bytes_unref));
    }
  }

 private:
  static void onSent(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<std::shared_ptr<SoupTransport>> self(
        static_cast<std::shared_ptr<SoupTransport>*>(data));
    SoupTransport& t = **self;
    t.busy_ = false;
    t.bytes_ = soup_session_send_and_read_finish(SOUP_SESSION(source), result, &t.error_);
    if (auto pending = std::exchange(t.pending_, nullptr)) {
      // The outcome came while this send ran (a cancel): it wins, and the
      // flow's completion goes, or flow and transport would hold each other.
      t.done_ = nullptr;
      return pending();
    }
    BackendAnswer answer;
    answer.transferred = t.bytes_ != nullptr;
    answer.status = static_cast<long>(soup_message_get_status(t.message_));
    // A redirect may have led elsewhere: only the declared domains' block
    // answers are looked at.
    if (answer.transferred && answer.status == t.blockCode_ &&
        t.protection_->protects(uriOf(t.message_))) {
      gsize size = 0;
      const void* bytes = g_bytes_get_data(t.bytes_, &size);
      if (size > 0) answer.blockBody.assign(static_cast<const char*>(bytes), size);
    }
    std::exchange(t.done_, nullptr)(std::move(answer));
  }

  void clearAnswer() {
    if (bytes_ != nullptr) g_bytes_unref(std::exchange(bytes_, nullptr));
    g_clear_error(&error_);
  }

  const std::shared_ptr<Protection> protection_;
  SoupSession* const session_;  // one reference each
  SoupMessage* const message_;
  GCancellable* const cancellable_;  // may be null
  const int priority_;
  const long blockCode_;
  int sends_ = 0;
  bool busy_ = false;
  std::function<void(BackendAnswer)> done_;
  std::function<void()> pending_;  // the outcome, waiting for the send under way
  GBytes* bytes_ = nullptr;        // the last answer's body
  GError* error_ = nullptr;        // the last send's error
};

// ---------------------------------------------------------------------------
// The attached session.

// The block answer of a message the host has already received; the
// attached form never sends anything itself.
class AnsweredTransport final : public Transport {
 public:
  explicit AnsweredTransport(BackendAnswer answer) : answer_(std::move(answer)) {}
  void send(const HeaderMap&, std::function<void(BackendAnswer)> done) override {
    // Out of libsoup's call stack: the flow may report to the host at once.
    post(g_main_context_get_thread_default(),
         [done = std::move(done), answer = answer_] { done(answer); });
  }
  bool replayable() const override { return false; }

 private:
  const BackendAnswer answer_;
};

// Lives as session data. Session's thread only.
class Attachment {
 public:
  Attachment(std::shared_ptr<Protection> protection, SoupSession* session,
             SoupChallengeReport report)
      : protection_(std::move(protection)),
        report_(std::move(report)),
        logger_(soup_logger_new(SOUP_LOGGER_LOG_BODY)) {
    g_weak_ref_init(&session_, session);
    // The logger is the one public place that sees a response body besides
    // its reader. It logs nothing but the block answers of our messages.
    soup_logger_set_max_body_size(logger_, kMaxBlockBody);
    // libsoup 3.2 keeps a response body for the logger only when the
    // request was logged at body level, so our own messages are.
    soup_logger_set_request_filter(logger_, requestFilter, this, nullptr);
    soup_logger_set_response_filter(logger_, responseFilter, this, nullptr);
    soup_logger_set_printer(logger_, printer, this, nullptr);
    soup_session_add_feature(session, SOUP_SESSION_FEATURE(logger_));
    queued_ = g_signal_connect(session, "request-queued", G_CALLBACK(onQueued), this);
    unqueued_ = g_signal_connect(session, "request-unqueued", G_CALLBACK(onUnqueued), this);
  }
  ~Attachment() {
    // Gone already when the session itself is being finalised.
    if (auto* session = static_cast<SoupSession*>(g_weak_ref_get(&session_))) {
      g_signal_handler_disconnect(session, queued_);
      g_signal_handler_disconnect(session, unqueued_);
      soup_session_remove_feature(session, SOUP_SESSION_FEATURE(logger_));
      g_object_unref(session);
    }
    g_weak_ref_clear(&session_);
    for (auto& [message, body] : tracked_) g_object_unref(message);
    g_object_unref(logger_);
  }
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;

 private:
  static void onQueued(SoupSession*, SoupMessage* message, Attachment* self) {
    if (g_object_get_data(G_OBJECT(message), kSendKey) != nullptr) return;
    if (!self->protection_->protects(uriOf(message))) return;
    setHeaders(message, self->protection_->headers());
    guardRedirects(message, self->protection_);
    if (self->tracked_.try_emplace(message, std::string()).second) g_object_ref(message);
  }

  static void onUnqueued(SoupSession*, SoupMessage* message, Attachment* self) {
    auto it = self->tracked_.find(message);
    if (it == self->tracked_.end()) return;
    if (self->current_ == message) self->current_ = nullptr;
    self->tracked_.erase(it);
    g_object_unref(message);
  }

  static SoupLoggerLogLevel requestFilter(SoupLogger*, SoupMessage* message, gpointer data) {
    auto* self = static_cast<Attachment*>(data);
    return self->tracked_.count(message) != 0 ? SOUP_LOGGER_LOG_BODY : SOUP_LOGGER_LOG_NONE;
  }

  static SoupLoggerLogLevel responseFilter(SoupLogger*, SoupMessage* message, gpointer data) {
    auto* self = static_cast<Attachment*>(data);
    auto it = self->tracked_.find(message);
    if (it == self->tracked_.end()) return SOUP_LOGGER_LOG_NONE;
    // The logger prints this message's response next, in one go. It is
    // printed whatever its status: the logger drops the body it kept for a
    // message only when it prints it, and would otherwise hand it to the
    // next message that gets the same address.
    self->current_ = message;
    it->second.clear();
    return SOUP_LOGGER_LOG_BODY;
  }

  static void printer(SoupLogger*, SoupLoggerLogLevel level, char direction, const char* data,
                      gpointer user) {
    auto* self = static_cast<Attachment*>(user);
    if (self->current_ == nullptr) return;
    const std::string_view line(data != nullptr ? data : "");
    if (direction == '<' && level == SOUP_LOGGER_LOG_MINIMAL) {
      // "Soup-Debug: SoupMessage 3 (0x...)" names the message being printed.
      void* printed = nullptr;
      if (std::sscanf(line.data(), "Soup-Debug: SoupMessage %*u (%p)", &printed) == 1 &&
          printed != self->current_) {
        self->current_ = nullptr;
      }
    } else if (direction == '<' && level == SOUP_LOGGER_LOG_BODY) {
      // The body comes line by line; JSON keeps no raw line break inside a
      // string, so joining them again gives the same document.
      self->tracked_[self->current_].append(line).push_back('\n');
    } else if (direction == ' ') {
      // The blank line that ends the message's response.
      SoupMessage* message = std::exchange(self->current_, nullptr);
      std::string body = std::exchange(self->tracked_[message], std::string());
      if (soup_message_get_status(message) == self->protection_->manager().blockCode() &&
          self->protection_->protects(uriOf(message))) {
        self->challenge(message, std::move(body));
      }
    }
  }

  void challenge(SoupMessage* message, std::string body) {
    BackendAnswer answer{true, static_cast<long>(soup_message_get_status(message)),
                         std::move(body)};
    g_object_ref(message);
    auto finished = [message, report = report_](Outcome outcome, const std::string& detail) {
      if (outcome == Outcome::NotReplayable) outcome = Outcome::CaptchaSolved;
      if (outcome != Outcome::Allowed && outcome != Outcome::PassedThrough && report) {
        report(message, outcome, detail);
      }
      g_object_unref(message);
    };
    ChallengeFlow::start(protection_, std::make_shared<AnsweredTransport>(std::move(answer)),
                         std::move(finished));
  }

  const std::shared_ptr<Protection> protection_;
  const SoupChallengeReport report_;
  SoupLogger* const logger_;  // one reference
  GWeakRef session_;
  gulong queued_ = 0;
  gulong unqueued_ = 0;
  std::map<SoupMessage*, std::string> tracked_;  // queued for a declared domain: block body
  SoupMessage* current_ = nullptr;               // whose block answer the logger prints
};

}  // namespace

void setReplayableBody(SoupMessage* message, const char* contentType, GBytes* body) {
  auto* kept = new ReplayableBody;
  kept->bytes = g_bytes_ref(body);
  kept->apply(message, contentType, /*again=*/false);
  keepBody(message, kept);
}

void setReplayableBody(SoupMessage* message, const char* contentType, GInputStream* stream,
                       gssize length) {
  auto* kept = new ReplayableBody;
  kept->stream = G_INPUT_STREAM(g_object_ref(stream));
  kept->start = G_IS_SEEKABLE(stream) ? g_seekable_tell(G_SEEKABLE(stream)) : 0;
  kept->length = length;
  kept->apply(message, contentType, /*again=*/false);
  keepBody(message, kept);
}

void sendAndReadAsync(const std::shared_ptr<Protection>& protection, SoupSession* session,
                      SoupMessage* message, int ioPriority, GCancellable* cancellable,
                      GAsyncReadyCallback callback, gpointer userData) {
  GTask* task = g_task_new(session, cancellable, callback, userData);
  g_task_set_source_tag(task, reinterpret_cast<gpointer>(&sendAndReadFinish));
  // The outcome decides the error, not the cancellable's state at the end.
  g_task_set_check_cancellable(task, FALSE);
  g_task_set_task_data(task, new Outcome(Outcome::Failed),
                       [](gpointer data) { delete static_cast<Outcome*>(data); });
  if (!protection || session == nullptr || message == nullptr) {
    g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                            "a protection, a session and a message are required");
    g_object_unref(task);
    return;
  }
  const bool isProtected = protection->protects(uriOf(message));
  g_object_set_data(G_OBJECT(message), kSendKey, GINT_TO_POINTER(1));
  if (isProtected) guardRedirects(message, protection);
  auto transport =
      std::make_shared<SoupTransport>(protection, session, message, ioPriority, cancellable);

  // The cancellable may fire on any thread; the flow hears it on its own
  // context. Disconnected once the outcome is known.
  struct Cancelling {
    std::function<void()> cancelFlow;
    gulong handler = 0;
  };
  auto cancelling = std::make_shared<Cancelling>();
  auto finished = [transport, task, cancellable, cancelling](Outcome outcome,
                                                             const std::string& detail) {
    if (cancelling->handler != 0) {
      g_cancellable_disconnect(cancellable, std::exchange(cancelling->handler, 0));
    }
    cancelling->cancelFlow = nullptr;
    transport->whenIdle([transport, task, outcome, detail] {
      transport->deliver(task, outcome, detail);
      g_object_unref(task);
    });
  };
  if (!isProtected) {
    // Someone else's host: the message goes as the host made it.
    transport->send({}, [finished](BackendAnswer answer) {
      finished(answer.transferred ? Outcome::PassedThrough : Outcome::Failed,
               answer.transferred ? "" : "the transfer failed");
    });
  } else {
    cancelling->cancelFlow = ChallengeFlow::start(protection, transport, std::move(finished));
  }
  if (cancellable == nullptr || !isProtected) return;  // libsoup cancels a plain send itself
  struct Heard {
    std::weak_ptr<Cancelling> cancelling;
    GMainContext* context;  // one reference
  };
  cancelling->handler = g_cancellable_connect(
      cancellable, G_CALLBACK(+[](GCancellable*, gpointer data) {
        auto* heard = static_cast<Heard*>(data);
        post(heard->context, [weak = heard->cancelling] {
          auto state = weak.lock();
          if (state && state->cancelFlow) std::exchange(state->cancelFlow, nullptr)();
        });
      }),
      new Heard{cancelling, g_main_context_ref(g_task_get_context(task))}, [](gpointer data) {
        auto* heard = static_cast<Heard*>(data);
        g_main_context_unref(heard->context);
        delete heard;
      });
}

GBytes* sendAndReadFinish(GAsyncResult* result, Outcome* outcome, GError** error) {
  GTask* task = G_TASK(result);
  if (outcome != nullptr) *outcome = *static_cast<Outcome*>(g_task_get_task_data(task));
  return static_cast<GBytes*>(g_task_propagate_pointer(task, error));
}

void attach(const std::shared_ptr<Protection>& protection, SoupSession* session,
            SoupChallengeReport report) {
  if (!protection || session == nullptr) return;
  g_object_set_data(G_OBJECT(session), kAttachmentKey, nullptr);  // the earlier one goes first
  g_object_set_data_full(G_OBJECT(session), kAttachmentKey,
                         new Attachment(protection, session, std::move(report)),
                         [](gpointer data) { delete static_cast<Attachment*>(data); });
}

void detach(SoupSession* session) {
  if (session != nullptr) g_object_set_data(G_OBJECT(session), kAttachmentKey, nullptr);
}

}  // namespace qs::http

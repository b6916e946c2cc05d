#include "ChallengeFlow.h"

#include <glib.h>

#include <optional>
#include <utility>

#include "quarrystone/QSManager.h"
#include "quarrystone/gtk/GtkHostViewController.h"

namespace qs::http {

namespace {

constexpr const char* kLogDomain = "quarrystone-http";
constexpr const char* kAuthorization = "X-QS-AUTHORIZATION";

void log(GLogLevelFlags level, const std::string& line) {
  g_log(kLogDomain, level, "%s", line.c_str());
}

// The page's handle, touched on the GTK thread only.
struct PageSlot {
  std::shared_ptr<QSBlockPage> page;
  bool closeWanted = false;
};

class Flow;

// Hears the page on the GTK thread and passes it on to the flow's context.
class PageObserver final : public QSBlockPageObserver {
 public:
  PageObserver(std::weak_ptr<Flow> flow, GMainContext* context)
      : flow_(std::move(flow)), context_(g_main_context_ref(context)) {}
  ~PageObserver() override { g_main_context_unref(context_); }
  PageObserver(const PageObserver&) = delete;
  PageObserver& operator=(const PageObserver&) = delete;
  void captchaAttemptFailed() override;
  void blockPageEnded(QSBlockPageEnd end) override;

 private:
  const std::weak_ptr<Flow> flow_;
  GMainContext* const context_;  // the flow's, one reference: the page may outlive the flow
};

class Flow final : public std::enable_shared_from_this<Flow> {
 public:
  Flow(std::shared_ptr<Protection> protection, std::shared_ptr<Transport> transport,
       ChallengeFlow::Finished finished)
      : protection_(std::move(protection)),
        transport_(std::move(transport)),
        finished_(std::move(finished)),
        context_(g_main_context_ref_thread_default()) {}
  ~Flow() {
    stopWaiting();
    g_main_context_unref(context_);
  }
  Flow(const Flow&) = delete;
  Flow& operator=(const Flow&) = delete;

  void begin() {
    sentHeaders_ = protection_->headers();
    transport_->send(sentHeaders_, [self = shared_from_this()](BackendAnswer answer) {
      self->firstAnswer(std::move(answer));
    });
  }

  void cancel() {
    if (done_) return;
    closePage();
    finish(Outcome::Cancelled, "cancelled by the host");
  }

  // From the page observer, on the flow's context.
  void attemptFailed() { ++failedAttempts_; }
  void pageEnded(QSBlockPageEnd end) {
    if (done_ || stage_ != Stage::OnPage) return;
    if (end == QSBlockPageEnd::Closed) {
      finish(failedAttempts_ > 0 ? Outcome::CaptchaFailed : Outcome::ClosedByUser,
             failedAttempts_ > 0 ? "the captcha page was closed after a wrong answer"
                                 : "the captcha page was closed");
      return;
    }
    stage_ = Stage::AwaitingToken;
    if (freshHeaders_) retry(*freshHeaders_);
  }

  GMainContext* context() const { return context_; }

 private:
  enum class Stage { Sending, OnPage, AwaitingToken, Retrying };

  void firstAnswer(BackendAnswer answer) {
    if (done_) return;
    if (!answer.transferred) return finish(Outcome::Failed, "the transfer failed");
    auto response = recognise(answer);
    if (!response) {
      return finish(answer.status == protection_->manager().blockCode() ? Outcome::PassedThrough
                                                                        : Outcome::Allowed,
                    "");
    }
    if (response->type() == QSBlockResponseTypeBlock) {
      showPage(response, nullptr);
      return finish(Outcome::Blocked, "the block page is shown");
    }
    stage_ = Stage::OnPage;
    // Nothing else holds the flow while the page is up: it keeps itself
    // until it finishes, which the deadline guarantees.
    keepAlive_ = shared_from_this();
    armDeadline();
    listenForHeaders();
    showPage(response, std::make_shared<PageObserver>(weak_from_this(), context_));
  }

  // The service's block or captcha with a page to show, or nothing.
  std::shared_ptr<QSBlockResponse> recognise(const BackendAnswer& answer) const {
    QSManager& manager = protection_->manager();
    if (answer.status != manager.blockCode()) return nullptr;
    Value json = Value::parse(answer.blockBody, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) {
      log(G_LOG_LEVEL_MESSAGE, "protected request: a " + std::to_string(answer.status) +
                                   " answer whose body is not a JSON object, passed through");
      return nullptr;
    }
    auto response = manager.checkError(json);
    if (response->type() == QSBlockResponseTypeForeign) return nullptr;
    if (response->pageHtml().empty()) {
      log(G_LOG_LEVEL_WARNING,
          "protected request: the service's block answer has no readable page, passed through");
      return nullptr;
    }
    return response;
  }

  void showPage(std::shared_ptr<QSBlockResponse> response,
                std::shared_ptr<QSBlockPageObserver> observer) {
    page_ = std::make_shared<PageSlot>();
    post(g_main_context_default(),
         [protection = protection_, response = std::move(response), observer = std::move(observer),
          slot = page_, weak = weak_from_this(), context = context_] {
           GtkWindow* window = protection->window();
           std::shared_ptr<QSBlockPage> page;
           if (window != nullptr && !slot->closeWanted) {
             GtkHostViewController host(window);
             page = protection->manager().handleBlockResponse(response, host, observer);
             g_object_unref(window);
           }
           if (page == nullptr && observer != nullptr) {
             // Nothing shown (no window, no UI, or closed before it came up).
             post(context, [weak] {
               if (auto self = weak.lock()) self->pageMissing();
             });
             return;
           }
           slot->page = std::move(page);
         });
  }

  void pageMissing() {
    if (done_ || stage_ != Stage::OnPage) return;
    finish(Outcome::Failed, "the page could not be shown: no host window or no UI");
  }

  void closePage() {
    if (!page_) return;
    post(g_main_context_default(), [slot = page_] {
      slot->closeWanted = true;
      if (auto page = std::move(slot->page)) page->close();
    });
  }

  void armDeadline() {
    const auto ms = protection_->settings().deadline.count();
    deadline_ = g_timeout_source_new(static_cast<guint>(std::max<decltype(ms)>(ms, 0)));
    g_source_set_callback(
        deadline_,
        [](gpointer data) {
          if (auto self = static_cast<std::weak_ptr<Flow>*>(data)->lock()) self->deadlinePassed();
          return G_SOURCE_REMOVE;
        },
        new std::weak_ptr<Flow>(weak_from_this()),
        [](gpointer data) { delete static_cast<std::weak_ptr<Flow>*>(data); });
    g_source_attach(deadline_, context_);
  }

  void deadlinePassed() {
    if (done_) return;
    if (stage_ == Stage::OnPage) {
      closePage();
      finish(Outcome::TimedOut, "the deadline passed with the captcha on screen");
    } else if (stage_ == Stage::AwaitingToken) {
      finish(Outcome::CaptchaFailed, "the solve brought no new token before the deadline");
    }
  }

  void listenForHeaders() {
    std::weak_ptr<Flow> weak = weak_from_this();
    GMainContext* context = g_main_context_ref(context_);
    // The listener may outlive this flow for a moment (a call under way);
    // it holds the context itself and the flow weakly.
    auto contextRef = std::shared_ptr<GMainContext>(context, g_main_context_unref);
    listener_ = protection_->manager().addHeadersListener([weak, contextRef](const HeaderMap& h) {
      post(contextRef.get(), [weak, h] {
        if (auto self = weak.lock()) self->headersAnnounced(h);
      });
    });
  }

  void headersAnnounced(const HeaderMap& headers) {
    if (done_) return;
    auto was = sentHeaders_.find(kAuthorization);
    auto now = headers.find(kAuthorization);
    if (now == headers.end() || (was != sentHeaders_.end() && was->second == now->second)) return;
    if (stage_ == Stage::OnPage) {
      freshHeaders_ = headers;  // arrived before the page's end reached us
    } else if (stage_ == Stage::AwaitingToken) {
      retry(headers);
    }
  }

  void retry(const HeaderMap& headers) {
    stopWaiting();
    if (!transport_->replayable()) {
      return finish(Outcome::NotReplayable,
                    "the request's body cannot be sent again; the fresh token is in place");
    }
    stage_ = Stage::Retrying;
    transport_->send(headers, [self = shared_from_this()](BackendAnswer answer) {
      self->secondAnswer(std::move(answer));
    });
  }

  void secondAnswer(BackendAnswer answer) {
    if (done_) return;
    if (!answer.transferred) return finish(Outcome::Failed, "the retried transfer failed");
    if (recognise(answer) != nullptr) {
      const std::string incident =
          "protected request blocked again after a solved captcha; not retried again";
      protection_->manager().reportError(incident);
      log(G_LOG_LEVEL_WARNING, incident);
      return finish(Outcome::LoopStopped, incident);
    }
    finish(Outcome::CaptchaSolved, "");
  }

  void stopWaiting() {
    if (deadline_ != nullptr) {
      g_source_destroy(deadline_);
      g_source_unref(deadline_);
      deadline_ = nullptr;
    }
    if (listener_ != 0) protection_->manager().removeHeadersListener(std::exchange(listener_, 0));
  }

  void finish(Outcome outcome, const std::string& detail) {
    if (done_) return;
    done_ = true;
    stopWaiting();
    log(G_LOG_LEVEL_INFO, std::string("protected request: ") + outcomeName(outcome) +
                              (detail.empty() ? "" : " (" + detail + ")"));
    auto finished = std::move(finished_);
    auto keepAlive = std::move(keepAlive_);  // released after the host heard
    finished(outcome, detail);
  }

  const std::shared_ptr<Protection> protection_;
  const std::shared_ptr<Transport> transport_;
  ChallengeFlow::Finished finished_;
  GMainContext* const context_;  // one reference

  // The rest is touched on the flow's context only.
  HeaderMap sentHeaders_;
  Stage stage_ = Stage::Sending;
  bool done_ = false;
  int failedAttempts_ = 0;
  std::optional<HeaderMap> freshHeaders_;
  GSource* deadline_ = nullptr;  // one reference while armed
  std::uint64_t listener_ = 0;
  std::shared_ptr<PageSlot> page_;   // its contents belong to the GTK thread
  std::shared_ptr<Flow> keepAlive_;  // set from the page's showing to the outcome
};

void PageObserver::captchaAttemptFailed() {
  post(context_, [flow = flow_] {
    if (auto self = flow.lock()) self->attemptFailed();
  });
}

void PageObserver::blockPageEnded(QSBlockPageEnd end) {
  post(context_, [flow = flow_, end] {
    if (auto self = flow.lock()) self->pageEnded(end);
  });
}

}  // namespace

void post(GMainContext* context, std::function<void()> task) {
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(
      source,
      [](gpointer data) {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(task)),
      [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  g_source_attach(source, context);
  g_source_unref(source);
}

std::function<void()> ChallengeFlow::start(std::shared_ptr<Protection> protection,
                                           std::shared_ptr<Transport> transport,
                                           Finished finished) {
  auto flow =
      std::make_shared<Flow>(std::move(protection), std::move(transport), std::move(finished));
  flow->begin();
  return [weak = std::weak_ptr<Flow>(flow)] {
    if (auto self = weak.lock()) self->cancel();
  };
}

}  // namespace qs::http

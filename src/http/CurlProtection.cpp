#include "quarrystone/http/CurlProtection.h"

#include <gio/gio.h>
#include <strings.h>

#include <atomic>
#include <optional>
#include <utility>
#include <vector>

#include "ChallengeFlow.h"
#include "quarrystone/QSManager.h"

namespace qs::http {

namespace {

// One transfer's response, kept until the flow has said whose it is.
struct Attempt {
  std::vector<std::string> headerLines;
  std::string body;
  bool decided = false;    // the status is known and the choice below made
  bool streaming = false;  // header lines and body go straight to the host
  long status = 0;
  CURLcode code = CURLE_OK;
};

// Sends the host's request, once or twice, on the calling thread (the
// blocking form) or on a worker thread (the asynchronous one); touched by one
// transfer at a time, and by the flow's context between transfers.
class CurlTransport final : public Transport, public std::enable_shared_from_this<CurlTransport> {
 public:
  CurlTransport(CurlRequest request, bool isProtected, long blockCode, bool threaded)
      : request_(std::move(request)),
        protected_(isProtected),
        blockCode_(blockCode),
        threaded_(threaded) {}

  void send(const HeaderMap& headers, std::function<void(BackendAnswer)> done) override {
    if (sends_++ > 0 && request_.rewind && !request_.rewind()) {
      // Checked by replayable() before a second send; a rewind that fails
      // now ends the request as a failed transfer.
      attempt_ = std::make_shared<Attempt>();
      attempt_->code = CURLE_SEND_FAIL_REWIND;
      return finishTransfer(std::move(done));
    }
    list_ = headerList(headers);
    attempt_ = std::make_shared<Attempt>();
    if (!threaded_) {
      transfer();
      return finishTransfer(std::move(done));
    }
    busy_ = true;
    auto* job = new Job{shared_from_this(), std::move(done)};
    GTask* task = g_task_new(nullptr, nullptr, onTransferred, job);
    g_task_set_task_data(task, job, nullptr);  // the callback frees it
    g_task_run_in_thread(task, [](GTask*, gpointer, gpointer data, GCancellable*) {
      static_cast<Job*>(data)->transport->transfer();
    });
    g_object_unref(task);
  }

  bool replayable() const override { return !request_.read || static_cast<bool>(request_.rewind); }

  void cancel() { cancelled_ = true; }
  bool cancelled() const { return cancelled_; }

  // Runs `then` on the flow's context once no transfer is under way: the
  // host may free its handle as soon as it hears the outcome.
  void whenIdle(std::function<void()> then) {
    if (!busy_) return then();
    pendingOutcome_ = std::move(then);
  }

  // Gives the host the last response, if it was kept back, and puts the
  // handle's callbacks back to libcurl's defaults.
  CurlResult deliver(Outcome outcome, std::string detail) {
    CurlResult result{outcome, attempt_ ? attempt_->code : CURLE_OK, 0, std::move(detail)};
    if (attempt_) {
      if (!attempt_->decided)
        curl_easy_getinfo(request_.easy, CURLINFO_RESPONSE_CODE, &attempt_->status);
      result.status = attempt_->status;
      if (!attempt_->streaming) {
        for (const auto& line : attempt_->headerLines) {
          if (request_.onHeader) request_.onHeader(line.data(), line.size());
        }
        if (request_.onBody && !attempt_->body.empty()) {
          request_.onBody(attempt_->body.data(), attempt_->body.size());
        }
      }
    }
    curl_easy_setopt(request_.easy, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(request_.easy, CURLOPT_WRITEFUNCTION, nullptr);
    curl_easy_setopt(request_.easy, CURLOPT_WRITEDATA, nullptr);
    curl_easy_setopt(request_.easy, CURLOPT_HEADERFUNCTION, nullptr);
    curl_easy_setopt(request_.easy, CURLOPT_HEADERDATA, nullptr);
    curl_easy_setopt(request_.easy, CURLOPT_XFERINFOFUNCTION, nullptr);
    curl_easy_setopt(request_.easy, CURLOPT_NOPROGRESS, 1L);
    if (request_.read) {
      curl_easy_setopt(request_.easy, CURLOPT_READFUNCTION, nullptr);
      curl_easy_setopt(request_.easy, CURLOPT_READDATA, nullptr);
    }
    return result;
  }

  ~CurlTransport() override { curl_slist_free_all(list_); }

 private:
  struct Job {
    std::shared_ptr<CurlTransport> transport;
    std::function<void(BackendAnswer)> done;
  };

  static void onTransferred(GObject*, GAsyncResult*, gpointer data) {
    std::unique_ptr<Job> job(static_cast<Job*>(data));
    auto& transport = *job->transport;
    transport.busy_ = false;
    if (auto pending = std::move(transport.pendingOutcome_)) {
      // The outcome came while this transfer ran (a cancel): it wins.
      transport.pendingOutcome_ = nullptr;
      pending();
      return;
    }
    transport.finishTransfer(std::move(job->done));
  }

  void finishTransfer(std::function<void(BackendAnswer)> done) {
    curl_slist_free_all(std::exchange(list_, nullptr));
    BackendAnswer answer;
    answer.transferred = attempt_->code == CURLE_OK && !cancelled_;
    if (!attempt_->decided)
      curl_easy_getinfo(request_.easy, CURLINFO_RESPONSE_CODE, &attempt_->status);
    answer.status = attempt_->status;
    if (!attempt_->streaming) answer.blockBody = attempt_->body;
    done(std::move(answer));
  }

  // The host's list without lines naming one of `headers`, then `headers`.
  curl_slist* headerList(const HeaderMap& headers) const {
    curl_slist* list = nullptr;
    for (const curl_slist* item = request_.headers; item != nullptr; item = item->next) {
      std::string_view line(item->data ? item->data : "");
      bool replaced = false;
      for (const auto& [name, value] : headers) {
        replaced = replaced || (line.size() > name.size() &&
                                (line[name.size()] == ':' || line[name.size()] == ';') &&
                                strncasecmp(line.data(), name.c_str(), name.size()) == 0);
      }
      if (!replaced) list = curl_slist_append(list, item->data);
    }
    for (const auto& [name, value] : headers) {
      list = curl_slist_append(list, (name + ": " + value).c_str());
    }
    return list;
  }

  void transfer() {
    CURL* easy = request_.easy;
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list_);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onWrite);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeaderLine);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
    if (request_.read) {
      curl_easy_setopt(easy, CURLOPT_READFUNCTION, onRead);
      curl_easy_setopt(easy, CURLOPT_READDATA, this);
    }
    attempt_->code = curl_easy_perform(easy);
  }

  // The status decides, at the first body byte, whether the answer could be
  // the service's block (kept back) or not (passed on as it comes).
  void decide() {
    Attempt& a = *attempt_;
    if (a.decided) return;
    a.decided = true;
    curl_easy_getinfo(request_.easy, CURLINFO_RESPONSE_CODE, &a.status);
    a.streaming = !(protected_ && a.status == blockCode_);
    if (!a.streaming) return;
    for (const auto& line : a.headerLines) {
      if (request_.onHeader) request_.onHeader(line.data(), line.size());
    }
    a.headerLines.clear();
  }

  static std::size_t onWrite(char* data, std::size_t size, std::size_t count, void* self) {
    auto& t = *static_cast<CurlTransport*>(self);
    const std::size_t length = size * count;
    t.decide();
    if (!t.attempt_->streaming) {
      t.attempt_->body.append(data, length);
      return length;
    }
    return t.request_.onBody ? t.request_.onBody(data, length) : length;
  }

  static std::size_t onHeaderLine(char* data, std::size_t size, std::size_t count, void* self) {
    auto& t = *static_cast<CurlTransport*>(self);
    const std::size_t length = size * count;
    if (t.attempt_->decided && t.attempt_->streaming) {
      return t.request_.onHeader ? t.request_.onHeader(data, length) : length;
    }
    t.attempt_->headerLines.emplace_back(data, length);
    return length;
  }

  static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
    auto& t = *static_cast<CurlTransport*>(self);
    return t.request_.read(buffer, size * count);
  }

  static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<CurlTransport*>(self)->cancelled_ ? 1 : 0;
  }

  const CurlRequest request_;
  const bool protected_;
  const long blockCode_;
  const bool threaded_;
  std::atomic<bool> cancelled_{false};
  int sends_ = 0;
  bool busy_ = false;  // a worker thread runs a transfer; flow's context only
  std::function<void()> pendingOutcome_;
  curl_slist* list_ = nullptr;        // the list of the transfer under way
  std::shared_ptr<Attempt> attempt_;  // the latest transfer's
};

std::function<void()> start(const std::shared_ptr<Protection>& protection, CurlRequest request,
                            bool threaded, std::function<void(CurlResult)> done) {
  if (!protection || request.easy == nullptr) {
    done(CurlResult{Outcome::Failed, CURLE_BAD_FUNCTION_ARGUMENT, 0,
                    "a protection and an easy handle are required"});
    return [] {};
  }
  char* url = nullptr;
  curl_easy_getinfo(request.easy, CURLINFO_EFFECTIVE_URL, &url);
  const bool isProtected = url != nullptr && protection->protects(url);
  auto transport = std::make_shared<CurlTransport>(
      std::move(request), isProtected, static_cast<long>(protection->manager().blockCode()),
      threaded);
  auto finished = [transport, done = std::move(done)](Outcome outcome, const std::string& detail) {
    transport->whenIdle([transport, done, outcome, detail] {
      done(transport->deliver(transport->cancelled() ? Outcome::Cancelled : outcome, detail));
    });
  };
  if (!isProtected) {
    // Someone else's host: the request goes as the host made it.
    transport->send({}, [finished](BackendAnswer answer) {
      finished(answer.transferred ? Outcome::PassedThrough : Outcome::Failed,
               answer.transferred ? "" : "the transfer failed");
    });
    return [transport] { transport->cancel(); };
  }
  auto cancelFlow = ChallengeFlow::start(protection, transport, std::move(finished));
  return [transport, cancelFlow] {
    transport->cancel();
    cancelFlow();
  };
}

}  // namespace

CurlResult perform(const std::shared_ptr<Protection>& protection, CurlRequest request) {
  if (protection && protection->onPageThread()) {
    return CurlResult{Outcome::Failed, CURLE_OK, 0,
                      "perform() blocks, and was called on the GTK thread, which must show the "
                      "page; call performAsync() there"};
  }
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  std::optional<CurlResult> result;
  start(protection, std::move(request), /*threaded=*/false,
        [&result](CurlResult r) { result = std::move(r); });
  while (!result) g_main_context_iteration(context, TRUE);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
  return *result;
}

std::function<void()> performAsync(const std::shared_ptr<Protection>& protection,
                                   CurlRequest request, std::function<void(CurlResult)> done) {
  return start(protection, std::move(request), /*threaded=*/true, std::move(done));
}

}  // namespace qs::http

#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quarrystone/platform/HttpClient.h"

namespace qs::fake {

// One scripted answer: a body with a status, or a transport error.
struct FakeReply {
  std::optional<std::string> body;
  long status = 200;
  std::optional<HttpError> error;

  static FakeReply json(std::string body, long status = 200) {
    return {std::move(body), status, {}};
  }
  static FakeReply failure(HttpError::Code code, std::string description) {
    return {std::nullopt, 0, HttpError{code, std::move(description)}};
  }
};

// Records every request. A responder, when set, may answer at once on the
// sending thread; otherwise requests stay pending until the test answers
// them, and the completion runs on the test's thread. Thread-safe.
class FakeHttpClient final : public HttpClient {
 public:
  using Responder = std::function<std::optional<FakeReply>(const HttpRequest&)>;

  void send(HttpRequest request, Completion completion) override;

  void setResponder(Responder responder);
  std::vector<HttpRequest> requests() const;
  std::size_t requestCount() const;
  std::size_t pendingCount() const;
  // Answers the oldest pending request. False if none is pending.
  bool respondNext(const FakeReply& reply);
  // Waits (bounded by `timeoutSeconds` of real time) until `count` requests
  // have been sent; for operations that run on real worker threads.
  bool waitForRequests(std::size_t count, double timeoutSeconds = 10);

 private:
  struct Pending {
    std::size_t index;
    Completion completion;
  };
  static void deliver(const HttpRequest& request, const Completion& completion,
                      const FakeReply& reply);

  mutable std::mutex mutex_;
  std::condition_variable sent_;
  Responder responder_;                // guarded by mutex_
  std::vector<HttpRequest> requests_;  // guarded by mutex_
  std::vector<Pending> pending_;       // guarded by mutex_
};

}  // namespace qs::fake

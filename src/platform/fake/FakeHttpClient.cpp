#include "FakeHttpClient.h"

#include <chrono>

namespace qs::fake {

void FakeHttpClient::send(HttpRequest request, Completion completion) {
  Responder responder;
  std::size_t index;
  {
    std::lock_guard lock(mutex_);
    responder = responder_;
    index = requests_.size();
    requests_.push_back(request);
  }
  sent_.notify_all();
  if (responder) {
    if (auto reply = responder(request)) {
      deliver(request, completion, *reply);
      return;
    }
  }
  std::lock_guard lock(mutex_);
  pending_.push_back(Pending{index, std::move(completion)});
}

void FakeHttpClient::deliver(const HttpRequest& request, const Completion& completion,
                             const FakeReply& reply) {
  if (reply.error) {
    completion(std::nullopt, std::nullopt, reply.error);
    return;
  }
  HttpResponse response;
  response.statusCode = reply.status;
  response.url = request.url;
  completion(reply.body, response, std::nullopt);
}

void FakeHttpClient::setResponder(Responder responder) {
  std::lock_guard lock(mutex_);
  responder_ = std::move(responder);
}

std::vector<HttpRequest> FakeHttpClient::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t FakeHttpClient::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

std::size_t FakeHttpClient::pendingCount() const {
  std::lock_guard lock(mutex_);
  return pending_.size();
}

bool FakeHttpClient::respondNext(const FakeReply& reply) {
  Pending next;
  HttpRequest request;
  {
    std::lock_guard lock(mutex_);
    if (pending_.empty()) return false;
    next = std::move(pending_.front());
    pending_.erase(pending_.begin());
    request = requests_[next.index];
  }
  deliver(request, next.completion, reply);
  return true;
}

bool FakeHttpClient::waitForRequests(std::size_t count, double timeoutSeconds) {
  std::unique_lock lock(mutex_);
  return sent_.wait_for(lock, std::chrono::duration<double>(timeoutSeconds),
                        [&] { return requests_.size() >= count; });
}

}  // namespace qs::fake

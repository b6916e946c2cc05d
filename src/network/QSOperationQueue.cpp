#include "network/QSOperationQueue.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace qs {

QSOperationQueue::QSOperationQueue(std::shared_ptr<WorkerPool> workers, std::size_t maxPending)
    : workers_(std::move(workers)), maxPending_(maxPending) {}

bool QSOperationQueue::addOperation(std::shared_ptr<QSNetworkOperation> operation) {
  if (!operation) return false;
  {
    std::lock_guard lock(mutex_);
    if (operations_.size() >= maxPending_) return false;
    operations_.push_back(operation);
  }
  std::weak_ptr<QSOperationQueue> weakQueue = weak_from_this();
  // The observer lives inside the operation, so the raw pointer is valid
  // whenever it runs.
  const QSNetworkOperation* raw = operation.get();
  operation->addObserver([weakQueue, raw](std::string_view key, bool prior) {
    if (prior || key != "isFinished" || !raw->isFinished()) return;
    if (auto queue = weakQueue.lock()) queue->remove(raw);
  });
  auto run = [weakQueue, operation] {
    // A start that throws is the operation's own failure, as on a worker; it
    // must not unwind into the caller that added it.
    try {
      operation->start();
    } catch (...) {
    }
    // A cancelled operation announces nothing: it was finished all along.
    if (operation->isFinished()) {
      if (auto queue = weakQueue.lock()) queue->remove(operation.get());
    }
  };
  if (workers_ && !operation->isAsynchronous()) {
    workers_->post(std::move(run));
  } else {
    run();
  }
  return true;
}

std::size_t QSOperationQueue::operationCount() const {
  std::lock_guard lock(mutex_);
  return operations_.size();
}

void QSOperationQueue::remove(const QSNetworkOperation* operation) {
  std::shared_ptr<QSNetworkOperation> released;  // dropped after the lock
  std::lock_guard lock(mutex_);
  auto it = std::find_if(operations_.begin(), operations_.end(),
                         [&](const auto& held) { return held.get() == operation; });
  if (it == operations_.end()) return;
  released = std::move(*it);
  operations_.erase(it);
}

}  // namespace qs

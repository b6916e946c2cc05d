#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "network/QSNetworkOperation.h"
#include "quarrystone/platform/WorkerPool.h"

namespace qs {

// Runs operations with no concurrency limit, holding each until it reports
// finished: it observes "isFinished" and lets go on the did-change
// announcement. An asynchronous operation (one whose main() only hands its
// work on) starts on the adding thread, before addOperation() returns; any
// other runs on the platform's worker pool. An operation cancelled before it
// starts is dropped without running. At most `maxPending` operations are
// held: the backlog a flood of host calls can build is bounded. Thread-safe;
// owned through std::shared_ptr.
class QSOperationQueue : public std::enable_shared_from_this<QSOperationQueue> {
 public:
  QSOperationQueue(std::shared_ptr<WorkerPool> workers, std::size_t maxPending);
  // False when `maxPending` operations are already held: the operation is
  // then released unstarted and the caller decides what that means.
  bool addOperation(std::shared_ptr<QSNetworkOperation> operation);
  // Operations added and not yet finished.
  std::size_t operationCount() const;

 private:
  void remove(const QSNetworkOperation* operation);

  std::shared_ptr<WorkerPool> workers_;
  const std::size_t maxPending_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<QSNetworkOperation>> operations_;  // guarded by mutex_
};

}  // namespace qs

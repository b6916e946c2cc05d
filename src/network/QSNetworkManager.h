#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "network/QSOperationQueue.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// Owns the shared operation queue on which every HTTP request runs, and
// builds the library's user agent. Thread-safe.
class QSNetworkManager {
 public:
  // Requests added and not yet finished, at most: past this a flood of host
  // calls is dropped rather than held (each pending request holds its body).
  static constexpr std::size_t kMaxPendingOperations = 1000;

  explicit QSNetworkManager(Platform platform);

  // Queues the operation; the queue starts it at once (no limit is set on how
  // many run): a POST or GET on the caller's thread, which hands its request
  // straight to the HTTP client's loop, anything else on a worker. The queue
  // keeps it until it reports finished. Returns without waiting for the
  // answer; false, with the operation released unstarted, when
  // kMaxPendingOperations are pending already.
  bool addNetworkOperation(std::shared_ptr<QSNetworkOperation> operation);

  // "Quarrystone iOS SDK/<version> (iPhone; iOS <system version>; Scale/<scale, 2 decimals>)".
  // The scale is 1 when the device has no main screen. Built anew on each call.
  static std::string userAgent(DeviceInfo& device);
  std::string userAgent() const;

  QSOperationQueue& requestsQueue() { return *queue_; }

 private:
  const Platform platform_;
  std::shared_ptr<QSOperationQueue> queue_;
};

}  // namespace qs

#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quarrystone/Value.h"

namespace qs {

// An operation that finishes only when its own asynchronous work calls back.
// Its "isFinished" and "isExecuting" keys are observable: observers hear a
// will-change and a did-change announcement, and only on a real change.
// start() runs on a queue worker, or on the adding thread when the operation
// isAsynchronous(); completions on the HTTP callback thread; cancel() from any
// thread. Owned through std::shared_ptr (the queue and the pending HTTP
// completion each hold one).
class QSNetworkOperation : public std::enable_shared_from_this<QSNetworkOperation> {
 public:
  // Called with the key ("isFinished"/"isExecuting") and whether this is the
  // announcement before the change (true) or after it (false). Runs on the
  // thread that changes the flag; it may read and change this operation.
  using KeyObserver = std::function<void(std::string_view key, bool prior)>;

  virtual ~QSNetworkOperation() = default;

  void setFinished(bool finished);
  // True when finished, or else when cancelled.
  bool isFinished() const;
  // Marks the operation cancelled; an executing one becomes not executing,
  // then finished. Work already handed to the HTTP client is not stopped.
  virtual void cancel();
  void setExecuting(bool executing);
  bool isExecuting() const;
  bool isCancelled() const { return cancelled_.load(); }
  // Unless cancelled: finished := false, executing := true, then main().
  void start();
  // True when main() only hands its work to something that runs it elsewhere
  // (the HTTP client) and returns at once. The queue then starts it on the
  // adding thread: a worker would only pass the request on a second time.
  virtual bool isAsynchronous() const { return false; }

  void addObserver(KeyObserver observer);

 protected:
  using HeaderList = std::vector<std::pair<std::string, std::string>>;

  // Starts the asynchronous work and returns at once.
  virtual void main() = 0;

  // The headers every request of an operation carries: "User-Agent", then the
  // caller's extra headers, which replace an entry of the same name.
  static HeaderList sessionHeaders(const std::string& userAgent,
                                   const std::optional<HeaderMap>& extra);
  // Sets a request-level header; it wins over a session header of the same
  // name (names compare without regard to case).
  static void setRequestHeader(HeaderList& headers, const std::string& name, std::string value);
  // Executing false, then finished true: the end of every completion.
  void markCompleted();

 private:
  void setFlag(std::atomic<bool>& flag, bool value, std::string_view key);
  void announce(std::string_view key, bool prior);

  std::atomic<bool> isFinished_{false};
  std::atomic<bool> isExecuting_{false};
  std::atomic<bool> cancelled_{false};
  // Orders the announce/store/announce sequence of one change, so concurrent
  // cancel() and completion cannot announce the same change twice. Recursive
  // because an observer may change a flag of this operation.
  std::recursive_mutex flagMutex_;
  std::mutex observersMutex_;
  std::vector<KeyObserver> observers_;  // guarded by observersMutex_
};

}  // namespace qs

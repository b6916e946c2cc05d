#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace qs {

// An operation that finishes only when its own asynchronous work calls back.
// Its "isFinished" and "isExecuting" keys are observable: observers hear a
// will-change and a did-change announcement, and only on a real change.
// start() runs on a queue worker; completions on the HTTP callback thread;
// cancel() from any thread.
class QSNetworkOperation : public std::enable_shared_from_this<QSNetworkOperation> {
 public:
  // Called with the key ("isFinished"/"isExecuting") and whether this is the
  // announcement before the change (true) or after it (false).
  using KeyObserver = std::function<void(std::string_view key, bool prior)>;

  virtual ~QSNetworkOperation() = default;

  void setFinished(bool finished);
  // True when finished, or else when cancelled.
  bool isFinished() const;
  virtual void cancel();
  void setExecuting(bool executing);
  bool isExecuting() const;
  bool isCancelled() const { return cancelled_.load(); }
  // Unless cancelled: finished := false, executing := true, then main().
  void start();

  void addObserver(KeyObserver observer);

 protected:
  // Starts the asynchronous work and returns at once.
  virtual void main() = 0;

 private:
  void setFlag(std::atomic<bool>& flag, bool value, std::string_view key);
  void announce(std::string_view key, bool prior);

  std::atomic<bool> isFinished_{false};
  std::atomic<bool> isExecuting_{false};
  std::atomic<bool> cancelled_{false};
  std::mutex flagMutex_;  // orders the announce/store/announce sequence of one key change
  std::mutex observersMutex_;
  std::vector<KeyObserver> observers_;  // guarded by observersMutex_
};

}  // namespace qs

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/QSCookie.h"
#include "collector/CollectorResponse.h"
#include "collector/QSChallenge.h"
#include "collector/SharedServices.h"
#include "network/QSPostOperation.h"
#include "quarrystone/Value.h"

namespace qs {

class QSManagerDelegate;

// What the exchange reads from the manager it serves; implemented over
// QSManager. Read-only, and safe to call from any thread.
class ManagerView {
 public:
  virtual ~ManagerView() = default;
  virtual std::string appId() const = 0;
  virtual std::string collectorUrl() const = 0;
  // The headers the host attaches to its own requests.
  virtual HeaderMap httpHeaders() const = 0;
  // The host's delegate; null when none is set or it is gone.
  virtual std::shared_ptr<QSManagerDelegate> delegate() const = 0;
  // Told after the host's delegate (or instead of it, when there is none)
  // whenever the delegate hears of headers.
  virtual void headersAnnounced(const HeaderMap& /*headers*/) const {}
};

// What the exchange asks of the orchestrator: answer a challenge, and arm
// the single pending timer after an answer or a failure. Implemented by
// QSManagerHelper; called on the HTTP client's callback thread.
class CollectorRequestDelegate {
 public:
  virtual ~CollectorRequestDelegate() = default;
  virtual void handleChallenge(const QSChallenge& challenge) = 0;
  // An idle activity at the cookie's fire date (at once if passed).
  virtual void setTimerForTokenRenew(const QSCookie& cookie) = 0;
  virtual void setTimerForAppIdleActivity(double seconds) = 0;
  // A new-session activity in 60 seconds.
  virtual void setTimerForAppInitActivity() = 0;
};

// One exchange with the collector at a time per call: encodes an activity,
// posts it, applies the answer's commands, arms the next timer and tells the
// host. Sending runs on the caller's thread; completions on the HTTP client's
// callback thread, where overlapping completions may interleave. The
// manager view and the delegate are held weakly; once the view is gone, an
// answer still in flight arms no timer and tells no one.
class CollectorRequest : public QSPostOperationDelegate,
                         public std::enable_shared_from_this<CollectorRequest> {
 public:
  CollectorRequest(std::weak_ptr<const ManagerView> manager, SharedServices services);

  void setDelegate(std::weak_ptr<CollectorRequestDelegate> delegate);
  bool didNotifyDelegateOnManagerReady() const { return didNotifyDelegateOnManagerReady_.load(); }

  // Encodes the activity record ({"t","d"}) and queues its POST. With the
  // queue full (QSNetworkManager::kMaxPendingOperations pending) the activity
  // is dropped, logged and counted; nothing else follows from it: the pending
  // exchanges' answers arm the timers and tell the host as usual.
  void sendRequestToServer(const Value& activity);

  // The activities dropped since the last call; resets the count. The client
  // error report carries it. Any thread.
  std::uint64_t takeDroppedActivities() { return droppedActivities_.exchange(0); }
  // Puts a taken count back (the report that was to carry it was not sent).
  void restoreDroppedActivities(std::uint64_t count) { droppedActivities_.fetch_add(count); }

  void taskCompletedWith(const std::optional<std::string>& data, const std::string& activityType,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override;
  void handleCollectorResponse(const CollectorResponse& response, const std::string& activityType);
  void handleCollectorError(const std::string& activityType);
  void setTimerForRetryOnError(const std::string& activityType);
  void notifyDelegateOnNewHeaders();

  // The encrypted, base64 payload: the record in a one-element JSON array,
  // enciphered under `appId`.
  static std::string payloadValueToBase64(const Value& activity, const std::string& appId);
  // uuid, tag, en, payload, sid and vid when stored, appId — in that order.
  Value prepareBodyWith(const std::string& payload, const std::string& appId);
  // "k=v" pairs joined by "&", in the map's order, without any escaping.
  static std::string toFormSubmitPostString(const Value& body);

 private:
  void log(const std::string& line, LogLevel level = LogLevel::Debug) const {
    services_.platform.log->write(level, line);
  }

  const std::weak_ptr<const ManagerView> manager_;
  const SharedServices services_;
  std::weak_ptr<CollectorRequestDelegate> delegate_;  // set once, before any exchange
  std::atomic<bool> didNotifyDelegateOnManagerReady_{false};
  std::atomic<std::uint64_t> droppedActivities_{0};
};

}  // namespace qs

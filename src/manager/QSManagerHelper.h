#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "activity/AppActivity.h"
#include "base/QSCookie.h"
#include "collector/CollectorRequest.h"
#include "collector/SharedServices.h"
#include "manager/QSReachability.h"
#include "network/QSGetOperation.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

class QSManager;

// The session orchestrator: turns every trigger (start, wake-up, return to
// the foreground, captcha solved, renewal, retry, challenge) into one
// activity for the collector exchange, and keeps the single pending timer.
// Called from the host's thread, the main thread and the network completion
// thread; timers are always scheduled and fire on the main thread.
class QSManagerHelper : public CollectorRequestDelegate,
                        public QSGetOperationDelegate,
                        public std::enable_shared_from_this<QSManagerHelper> {
 public:
  // Builds the orchestrator with its collector exchange, starts watching
  // reachability and observes the will-enter-foreground notification.
  static std::shared_ptr<QSManagerHelper> create(std::weak_ptr<QSManager> manager,
                                                 const SharedServices& services);
  ~QSManagerHelper() override;

  bool hasNetwork() const { return hasNetwork_.load(); }
  std::shared_ptr<Timer> timer() const;
  CollectorRequest& collectorRequest() const { return *collectorRequest_; }
  QSReachability* reachability() const { return reachability_.get(); }

  void setUpRechability();
  void handleNetworkChange(const Notification& notification);
  void sendAppActivity(QSAppState state);
  void handleBGtoFG();
  void sendNewSessionActivity();
  void sendAppIdleActivity();
  void handleChallenge(const QSChallenge& challenge) override;

  // Renewal: an idle activity at the cookie's fire date (at once if passed).
  void setTimerForTokenRenew(const QSCookie& cookie) override;
  void setTimerForAppIdleActivity(double seconds) override;
  void setTimerForAppInitActivity() override;
  void resetTimer();

  // Client error reports: a fire-and-forget GET to the collector host.
  void reportError(const std::string& message);
  // The record; "dropped_activities" is added only when some were dropped
  // since the last report, so an ordinary record keeps its four keys.
  std::optional<std::string> prepareErrorData(const std::string& message,
                                              std::uint64_t droppedActivities = 0);
  void taskCompletedWith(const std::optional<std::string>& data,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override;

 private:
  QSManagerHelper(std::weak_ptr<QSManager> manager, SharedServices services);
  void scheduleTimer(double seconds, void (QSManagerHelper::*target)());
  std::string appId() const;
  void log(const std::string& line, LogLevel level = LogLevel::Debug) const {
    services_.platform.log->write(level, line);
  }

  const std::weak_ptr<QSManager> manager_;
  const SharedServices services_;
  std::unique_ptr<const ManagerView> managerView_;  // the exchange's view of manager_
  std::shared_ptr<CollectorRequest> collectorRequest_;
  std::unique_ptr<QSReachability> reachability_;
  std::atomic<bool> hasNetwork_{false};
  NotificationCenter::Token reachabilityObserver_ = 0;
  NotificationCenter::Token foregroundObserver_ = 0;

  mutable std::mutex timerMutex_;
  std::shared_ptr<Timer> timer_;  // guarded by timerMutex_
};

}  // namespace qs

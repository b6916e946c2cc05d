#include "manager/QSManagerHelper.h"

#include <fmt/format.h>

#include "activity/ChallengeActivity.h"
#include "base/PercentEncoding.h"
#include "manager/QSManagerInternals.h"
#include "quarrystone/Constants.h"
#include "quarrystone/QSManager.h"

namespace qs {

// The default deployment's client-error endpoint: app id, then the record.
const char* const kDefaultLogEntriesUrlFormat =
    "https://collector-%@.quarrystone.net/api/v1/collector/clientError?r=%@";
const char* const QS_LOG_ENTRIES_URL = "";

namespace {

// The manager as the collector exchange reads it.
class QSManagerView final : public ManagerView {
 public:
  explicit QSManagerView(const QSManager& manager) : manager_(manager) {}
  std::string appId() const override { return manager_.appId(); }
  std::string collectorUrl() const override { return manager_.collectorUrl(); }
  HeaderMap httpHeaders() const override { return manager_.httpHeaders(); }
  std::shared_ptr<QSManagerDelegate> delegate() const override { return manager_.delegate(); }
  void headersAnnounced(const HeaderMap& headers) const override {
    QSManagerInternals::announceHeaders(manager_, headers);
  }

 private:
  const QSManager& manager_;  // weak: reached only while the manager is alive (see create)
};

}  // namespace

QSManagerHelper::QSManagerHelper(std::weak_ptr<QSManager> manager, SharedServices services)
    : manager_(std::move(manager)), services_(std::move(services)) {}

std::shared_ptr<QSManagerHelper> QSManagerHelper::create(std::weak_ptr<QSManager> manager,
                                                         const SharedServices& services) {
  std::shared_ptr<QSManagerHelper> helper(new QSManagerHelper(manager, services));
  // The exchange holds its view weakly, through a pointer that shares the
  // manager's ownership: it expires with the manager, and while it locks, the
  // manager, and with it this helper and the view it keeps, are alive.
  std::weak_ptr<const ManagerView> view;
  if (auto owner = manager.lock()) {
    helper->managerView_ = std::make_unique<QSManagerView>(*owner);
    view = std::shared_ptr<const ManagerView>(std::move(owner), helper->managerView_.get());
  }
  helper->collectorRequest_ = std::make_shared<CollectorRequest>(view, services);
  helper->collectorRequest_->setDelegate(helper);
  helper->setUpRechability();
  std::weak_ptr<QSManagerHelper> weak = helper;
  helper->foregroundObserver_ = services.platform.notifications->addObserver(
      kApplicationWillEnterForegroundNotification, [weak](const Notification&) {
        if (auto self = weak.lock()) self->handleBGtoFG();
      });
  return helper;
}

QSManagerHelper::~QSManagerHelper() {
  services_.platform.notifications->removeObserver(foregroundObserver_);
  services_.platform.notifications->removeObserver(reachabilityObserver_);
  resetTimer();
}

std::shared_ptr<Timer> QSManagerHelper::timer() const {
  std::lock_guard lock(timerMutex_);
  return timer_;
}

void QSManagerHelper::setUpRechability() {
  std::weak_ptr<QSManagerHelper> weak = weak_from_this();
  reachabilityObserver_ = services_.platform.notifications->addObserver(
      kQSReachabilityChangedNotification, [weak](const Notification& notification) {
        if (auto self = weak.lock()) self->handleNetworkChange(notification);
      });
  reachability_ = QSReachability::reachabilityForInternetConnection(services_.platform);
  if (reachability_) reachability_->startNotifier();
  hasNetwork_.store(reachability_ && reachability_->currentReachabilityStatus() != 0);
  log(fmt::format("setUpRechability - hasNetwork: {}", hasNetwork_.load() ? "true" : "false"));
}

void QSManagerHelper::handleNetworkChange(const Notification& /*notification*/) {
  // Kept as status only: nothing in the library waits for the network.
  hasNetwork_.store(reachability_ && reachability_->currentReachabilityStatus() != 0);
  log(fmt::format("handleNetworkChange - hasNetwork: {}", hasNetwork_.load() ? "true" : "false"));
}

void QSManagerHelper::sendAppActivity(QSAppState state) {
  AppActivity builder(services_.platform, *services_.storage, *services_.utils, *services_.uuid);
  collectorRequest_->sendRequestToServer(builder.collectActivityData(state));
}

void QSManagerHelper::handleBGtoFG() {
  log("handle background to foreground");
  sendAppActivity(QSAppStateBackgroundToForeground);
}

void QSManagerHelper::sendNewSessionActivity() { sendAppActivity(QSAppStateNewSession); }

void QSManagerHelper::sendAppIdleActivity() { sendAppActivity(QSAppStateIdle); }

void QSManagerHelper::handleChallenge(const QSChallenge& challenge) {
  ChallengeActivity builder(services_.platform, *services_.storage, *services_.utils,
                            *services_.uuid);
  collectorRequest_->sendRequestToServer(builder.prepareActivityData(challenge));
}

void QSManagerHelper::setTimerForTokenRenew(const QSCookie& cookie) {
  log("--> setTimerForTokenRenew");
  setTimerForAppIdleActivity(cookie.ttlFireDate() - services_.platform.clock->now());
}

void QSManagerHelper::setTimerForAppIdleActivity(double seconds) {
  log("--> setTimerForAppIdleActivity");
  resetTimer();
  log(fmt::format(
      "set a new timer, it will send app_idle activity in {:02f} seconds, {:.2f} minutes", seconds,
      seconds / 60));
  scheduleTimer(seconds, &QSManagerHelper::sendAppIdleActivity);
}

void QSManagerHelper::setTimerForAppInitActivity() {
  log("--> setTimerForAppInitActivity");
  resetTimer();
  log("set a new timer, it will send app_init activity in 60 seconds");
  scheduleTimer(60.0, &QSManagerHelper::sendNewSessionActivity);
}

// The reset above runs at once on the caller's thread; the new timer is made
// later on the main thread, so the most recent request wins. Two requests
// made before the main thread runs either scheduling both get scheduled, and
// only the later one stays referenced.
void QSManagerHelper::scheduleTimer(double seconds, void (QSManagerHelper::*target)()) {
  std::weak_ptr<QSManagerHelper> weak = weak_from_this();
  services_.platform.mainLoop->dispatchAsync([weak, seconds, target] {
    auto self = weak.lock();
    if (!self) return;
    auto timer = self->services_.platform.mainLoop->scheduleTimer(seconds, [weak, target] {
      if (auto helper = weak.lock()) ((*helper).*target)();
    });
    std::lock_guard lock(self->timerMutex_);
    self->timer_ = std::move(timer);
  });
}

void QSManagerHelper::resetTimer() {
  std::lock_guard lock(timerMutex_);
  if (timer_ && timer_->isValid()) {
    log("** Invalidating timer **");
    timer_->invalidate();
    timer_.reset();
  }
}

std::string QSManagerHelper::appId() const {
  auto manager = manager_.lock();
  return manager ? manager->appId() : std::string();
}

std::optional<std::string> QSManagerHelper::prepareErrorData(const std::string& message,
                                                             std::uint64_t droppedActivities) {
  Value record = Value::object();
  record["message"] = message;
  record["tag"] = services_.network->userAgent();
  record["appId"] = appId();
  record["sdk_version"] = QS_SDK_VERSION;
  if (droppedActivities > 0) record["dropped_activities"] = droppedActivities;
  try {
    return record.dump();
  } catch (const Value::exception& e) {
    log(fmt::format("prepareErrorData - Got an error: {}", e.what()), LogLevel::Warning);
    return std::nullopt;
  }
}

void QSManagerHelper::reportError(const std::string& message) {
  auto manager = manager_.lock();
  if (!manager) return;
  const std::string id = manager->appId();
  // Activities dropped by a full backlog travel with the next report.
  const std::uint64_t dropped = collectorRequest_->takeDroppedActivities();
  auto json = prepareErrorData(message, dropped);
  const std::string encoded = json ? percentEncodeHostAllowed(*json) : "(null)";
  auto operation = std::make_shared<QSGetOperation>(
      *services_.platform.http, services_.network->userAgent(),
      QSManagerInternals::settings(*manager).clientErrorUrl(id, encoded), std::nullopt,
      std::nullopt);
  operation->setDelegate(shared_from_this());
  if (!services_.network->addNetworkOperation(std::move(operation))) {
    collectorRequest_->restoreDroppedActivities(dropped);
    log(fmt::format("LogEntries - {} requests pending, report dropped",
                    QSNetworkManager::kMaxPendingOperations),
        LogLevel::Warning);
  }
}

void QSManagerHelper::taskCompletedWith(const std::optional<std::string>& /*data*/,
                                        const std::optional<HttpResponse>& /*response*/,
                                        const std::optional<HttpError>& error) {
  if (!error) {
    log("LogEntries - success");
  } else {
    log(fmt::format("LogEntries received error: {}", error->localizedDescription),
        LogLevel::Warning);
  }
}

}  // namespace qs

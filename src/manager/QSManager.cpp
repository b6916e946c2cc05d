#include "quarrystone/QSManager.h"

#include <fmt/format.h>

#include "activity/QSUUID.h"
#include "activity/QSUtils.h"
#include "block/QSWebViewController.h"
#include "collector/QSStorage.h"
#include "manager/QSManagerHelper.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/platform/DefaultPlatform.h"

namespace qs {

namespace {

constexpr const char* kMissingResponseMessage =
    "QS Error - call handleBlock() only after you pass the responseJson via checkError() method";
constexpr const char* kForeignResponseMessage =
    "QS Error - call handleBlock() only if block response type belongs to Quarrystone";

// What sharedInstance() is built from; settable until it exists.
struct SharedSetup {
  std::mutex mutex;
  std::optional<Platform> platform;
  std::optional<DeploymentSettings> settings;
  bool created = false;
};

// Never destroyed, like the instance it builds: the platform it holds owns
// threads that may still run while the host's exit handlers do.
SharedSetup& sharedSetup() {
  static SharedSetup& setup = *new SharedSetup;
  return setup;
}

}  // namespace

QSMissingDelegateException::QSMissingDelegateException()
    : std::logic_error("Make sure you set the QSManagerDelegate before calling startWith:") {}

bool QSManager::installPlatform(Platform platform, DeploymentSettings settings) {
  auto& setup = sharedSetup();
  std::lock_guard lock(setup.mutex);
  if (setup.created) return false;
  setup.platform = std::move(platform);
  setup.settings = std::move(settings);
  return true;
}

bool QSManager::installSettings(DeploymentSettings settings) {
  auto& setup = sharedSetup();
  std::lock_guard lock(setup.mutex);
  if (setup.created) return false;
  setup.settings = std::move(settings);
  return true;
}

QSManager& QSManager::sharedInstance() {
  // Built once and never destroyed: the host may call in until the process ends.
  static std::shared_ptr<QSManager>* const instance = [] {
    auto& setup = sharedSetup();
    std::lock_guard lock(setup.mutex);
    setup.created = true;
    DeploymentSettings settings = setup.settings.value_or(DeploymentSettings::fromEnvironment());
    Platform platform = setup.platform ? *setup.platform : defaultPlatform(settings);
    auto manager = create(std::move(platform), std::move(settings));
    return new std::shared_ptr<QSManager>(std::move(manager));
  }();
  return **instance;
}

std::shared_ptr<QSManager> QSManager::create(Platform platform, DeploymentSettings settings) {
  std::shared_ptr<QSManager> manager(new QSManager(std::move(platform), std::move(settings)));
  manager->init();
  return manager;
}

QSManager::QSManager(Platform platform, DeploymentSettings settings)
    : platform_(std::move(platform)), settings_(std::move(settings)) {}

void QSManager::init() {
  storage_ = std::make_shared<QSStorage>(platform_.store, platform_.archiver, platform_.log);
  uuid_ = std::make_shared<QSUUID>(platform_.device);
  utils_ = std::make_shared<QSUtils>(platform_, storage_);
  network_ = std::make_shared<QSNetworkManager>(platform_);
  managerHelper_ =
      QSManagerHelper::create(weak_from_this(), {platform_, storage_, utils_, uuid_, network_});
}

QSManager::~QSManager() = default;

void QSManager::log(const std::string& line, LogLevel level) const {
  platform_.log->write(level, line);
}

void QSManager::setDelegate(std::weak_ptr<QSManagerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<QSManagerDelegate> QSManager::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

std::string QSManager::appId() const {
  std::lock_guard lock(mutex_);
  return appId_;
}

std::string QSManager::collectorUrl() const {
  std::lock_guard lock(mutex_);
  return collectorUrl_;
}

bool QSManager::forceCaptcha() const { return forceCaptcha_.load(); }
void QSManager::setForceCaptcha(bool value) { forceCaptcha_.store(value); }
bool QSManager::forceBlock() const { return forceBlock_.load(); }
void QSManager::setForceBlock(bool value) { forceBlock_.store(value); }
std::int64_t QSManager::blockCode() const { return blockCode_.load(); }
void QSManager::setBlockCode(std::int64_t code) { blockCode_.store(code); }
QSManagerHelper& QSManager::managerHelper() const { return *managerHelper_; }

void QSManager::startWith(const std::string& appId) {
  {
    std::lock_guard lock(mutex_);
    if (delegate_.expired()) throw QSMissingDelegateException();
    appId_ = appId;
    collectorUrl_ = settings_.collectorUrl(appId);
  }
  utils_->startTimerForManagerStart();
  utils_->resetCollectorSid();
  managerHelper_->sendAppActivity(QSAppStateNewSession);
}

void QSManager::wakeup() { managerHelper_->sendAppActivity(QSAppStateWakeup); }

void QSManager::managerWithCustomBlockCode(std::int64_t code) { setBlockCode(code); }

std::shared_ptr<QSBlockResponse> QSManager::checkError(const Value& response) {
  return std::make_shared<QSBlockResponse>(response);
}

void QSManager::handleBlockResponse(const std::shared_ptr<QSBlockResponse>& response,
                                    ViewController& host) {
  if (!response) {
    log(kMissingResponseMessage, LogLevel::Error);
    managerHelper_->reportError(kMissingResponseMessage);
    return;
  }
  switch (response->type()) {
    case QSBlockResponseTypeForeign:
      log(kForeignResponseMessage, LogLevel::Error);
      managerHelper_->reportError(kForeignResponseMessage);
      return;
    case QSBlockResponseTypeBlock:
      log("----> handle Block");
      break;
    case QSBlockResponseTypeCaptcha:
      log("----> handle Captcha");
      break;
    default:
      return;
  }
  showBlockResponse(response, host);
}

void QSManager::showBlockResponse(const std::shared_ptr<QSBlockResponse>& response,
                                  ViewController& host) {
  if (!platform_.ui) {
    log("showBlockResponse - no UI is available to present the page", LogLevel::Warning);
    return;
  }
  std::weak_ptr<QSManager> weak = weak_from_this();
  auto controller = std::make_shared<QSWebViewController>(
      platform_, network_->userAgent(), settings_.webDomain,
      [weak] {
        auto self = weak.lock();
        return self ? self->collectorUrl() : std::string();
      },
      [weak](const std::string& message) {
        if (auto self = weak.lock()) self->managerHelper().reportError(message);
      });
  controller->setBlockResponse(response);
  controller->setDelegate(weak_from_this());
  platform_.ui->present(controller, host, /*animated=*/true);
}

void QSManager::captchaSuccess() { managerHelper_->sendAppActivity(QSAppStateNewSession); }

void QSManager::setCustomParameters(const Value& parameters) {
  if (!parameters.is_null() && !parameters.is_object()) {
    log("setCustomParameters - ignoring custom parameters that are not a map", LogLevel::Warning);
    return;
  }
  // An empty map clears the parameters.
  if (parameters.is_null() || (parameters.is_object() && parameters.empty())) {
    storage_->saveCustomParams(std::nullopt);
  } else {
    storage_->saveCustomParams(parameters);
  }
}

HeaderMap QSManager::httpHeaders() const {
  HeaderMap headers;
  auto cookie = storage_->getCookie();
  if (cookie && !cookie->ttlExpired(platform_.clock->now())) {
    headers.emplace(
        "X-QS-AUTHORIZATION",
        fmt::format("{}:{}", QSCookie::cookieLevelFrom(cookie->name()), cookie->token()));
    if (forceBlock_.load()) {
      headers.emplace("X-QS-SIMULATE", "block");
    } else if (forceCaptcha_.load()) {
      headers.emplace("X-QS-SIMULATE", "captcha");
    }
  } else {
    headers.emplace("X-QS-AUTHORIZATION", "1");
  }
  return headers;
}

void QSManager::setHeadersForRequest(URLRequest& request) const {
  for (const auto& [field, value] : httpHeaders()) request.setValue(value, field);
}

void QSManager::setHeadersForConfiguration(URLSessionConfiguration& configuration) const {
  // Each entry replaces the whole set, so only the last one enumerated stays.
  for (const auto& [field, value] : httpHeaders()) {
    configuration.httpAdditionalHeaders = HeaderMap{{field, value}};
  }
}

void QSManager::forceBlockToken() {
  forceBlock_.store(true);
  startWith(appId());
}

void QSManager::forceCaptchaToken() {
  forceCaptcha_.store(true);
  startWith(appId());
}

void QSManager::resetDebugSettings() {
  forceBlock_.store(false);
  forceCaptcha_.store(false);
}

}  // namespace qs

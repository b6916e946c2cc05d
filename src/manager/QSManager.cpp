#include "quarrystone/QSManager.h"

#include <fmt/format.h>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "activity/QSUUID.h"
#include "activity/QSUtils.h"
#include "block/QSWebViewController.h"
#include "collector/QSStorage.h"
#include "manager/QSManagerHelper.h"
#include "manager/QSManagerInternals.h"
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

// The manager's object graph and state. Services are set while create()
// runs and never change; the rest is atomic or guarded by mutex.
class QSManager::Impl {
 public:
  Impl(Platform platformIn, DeploymentSettings settingsIn)
      : platform(std::move(platformIn)),
        settings(std::move(settingsIn)),
        storage(std::make_shared<QSStorage>(platform.store, platform.archiver, platform.log)),
        uuid(std::make_shared<QSUUID>(platform.device)),
        utils(std::make_shared<QSUtils>(platform, storage)),
        network(std::make_shared<QSNetworkManager>(platform)) {}

  void log(const std::string& line, LogLevel level = LogLevel::Debug) const {
    platform.log->write(level, line);
  }

  const Platform platform;
  const DeploymentSettings settings;
  const std::shared_ptr<QSStorage> storage;
  const std::shared_ptr<QSUUID> uuid;
  const std::shared_ptr<QSUtils> utils;
  const std::shared_ptr<QSNetworkManager> network;
  // Needs the manager's weak self, so it is made once the manager exists.
  std::shared_ptr<QSManagerHelper> managerHelper;

  mutable std::mutex mutex;
  std::weak_ptr<QSManagerDelegate> delegate;  // guarded by mutex
  std::string appId;                          // guarded by mutex
  std::string collectorUrl;                   // guarded by mutex
  std::atomic<bool> forceCaptcha{false};
  std::atomic<bool> forceBlock{false};
  std::atomic<std::int64_t> blockCode{403};

  // Shared so that a call under way keeps a listener alive while it runs.
  using Listener = std::shared_ptr<const HeadersListener>;
  std::mutex listenersMutex;
  std::vector<std::pair<std::uint64_t, Listener>> listeners;  // guarded by listenersMutex
  std::uint64_t nextListenerId = 1;                           // guarded by listenersMutex
};

std::shared_ptr<QSManager> QSManager::create(Platform platform, DeploymentSettings settings) {
  std::shared_ptr<QSManager> manager(new QSManager(std::move(platform), std::move(settings)));
  Impl& impl = *manager->impl_;
  impl.managerHelper = QSManagerHelper::create(
      manager, {impl.platform, impl.storage, impl.utils, impl.uuid, impl.network});
  return manager;
}

QSManager::QSManager(Platform platform, DeploymentSettings settings)
    : impl_(std::make_unique<Impl>(std::move(platform), std::move(settings))) {}

QSManager::~QSManager() = default;

void QSManager::setDelegate(std::weak_ptr<QSManagerDelegate> delegate) {
  std::lock_guard lock(impl_->mutex);
  impl_->delegate = std::move(delegate);
}

std::shared_ptr<QSManagerDelegate> QSManager::delegate() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->delegate.lock();
}

std::string QSManager::appId() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->appId;
}

std::string QSManager::collectorUrl() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->collectorUrl;
}

bool QSManager::forceCaptcha() const { return impl_->forceCaptcha.load(); }
void QSManager::setForceCaptcha(bool value) { impl_->forceCaptcha.store(value); }
bool QSManager::forceBlock() const { return impl_->forceBlock.load(); }
void QSManager::setForceBlock(bool value) { impl_->forceBlock.store(value); }
std::int64_t QSManager::blockCode() const { return impl_->blockCode.load(); }
void QSManager::setBlockCode(std::int64_t code) { impl_->blockCode.store(code); }

void QSManager::startWith(const std::string& appId) {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->delegate.expired()) throw QSMissingDelegateException();
    impl_->appId = appId;
    impl_->collectorUrl = impl_->settings.collectorUrl(appId);
  }
  impl_->utils->startTimerForManagerStart();
  impl_->utils->resetCollectorSid();
  impl_->managerHelper->sendAppActivity(QSAppStateNewSession);
}

void QSManager::wakeup() { impl_->managerHelper->sendAppActivity(QSAppStateWakeup); }

void QSManager::managerWithCustomBlockCode(std::int64_t code) { setBlockCode(code); }

std::shared_ptr<QSBlockResponse> QSManager::checkError(const Value& response) {
  return std::make_shared<QSBlockResponse>(response);
}

void QSManager::handleBlockResponse(const std::shared_ptr<QSBlockResponse>& response,
                                    ViewController& host) {
  if (!response) {
    impl_->log(kMissingResponseMessage, LogLevel::Error);
    impl_->managerHelper->reportError(kMissingResponseMessage);
    return;
  }
  switch (response->type()) {
    case QSBlockResponseTypeForeign:
      impl_->log(kForeignResponseMessage, LogLevel::Error);
      impl_->managerHelper->reportError(kForeignResponseMessage);
      return;
    case QSBlockResponseTypeBlock:
      impl_->log("----> handle Block");
      break;
    case QSBlockResponseTypeCaptcha:
      impl_->log("----> handle Captcha");
      break;
    default:
      return;
  }
  showBlockResponse(response, host);
}

std::shared_ptr<QSBlockPage> QSManager::handleBlockResponse(
    const std::shared_ptr<QSBlockResponse>& response, ViewController& host,
    std::shared_ptr<QSBlockPageObserver> observer) {
  if (!response || (response->type() != QSBlockResponseTypeBlock &&
                    response->type() != QSBlockResponseTypeCaptcha)) {
    handleBlockResponse(response, host);
    return nullptr;
  }
  impl_->log(response->type() == QSBlockResponseTypeBlock ? "----> handle Block"
                                                          : "----> handle Captcha");
  return presentBlockResponse(response, host, std::move(observer));
}

void QSManager::showBlockResponse(const std::shared_ptr<QSBlockResponse>& response,
                                  ViewController& host) {
  presentBlockResponse(response, host, nullptr);
}

std::shared_ptr<QSBlockPage> QSManager::presentBlockResponse(
    const std::shared_ptr<QSBlockResponse>& response, ViewController& host,
    std::shared_ptr<QSBlockPageObserver> observer) {
  if (!impl_->platform.ui) {
    impl_->log("showBlockResponse - no UI is available to present the page", LogLevel::Warning);
    return nullptr;
  }
  std::weak_ptr<QSManager> weak = weak_from_this();
  auto controller = std::make_shared<QSWebViewController>(
      impl_->platform, impl_->network->userAgent(), impl_->settings.webDomain,
      [weak] {
        auto self = weak.lock();
        return self ? self->collectorUrl() : std::string();
      },
      [weak](const std::string& message) {
        if (auto self = weak.lock()) self->impl_->managerHelper->reportError(message);
      });
  controller->setBlockResponse(response);
  controller->setDelegate(weak_from_this());
  controller->setObserver(std::move(observer));
  auto page = controller->page();
  impl_->platform.ui->present(std::move(controller), host, /*animated=*/true);
  return page;
}

std::uint64_t QSManager::addHeadersListener(HeadersListener listener) {
  if (!listener) return 0;
  std::lock_guard lock(impl_->listenersMutex);
  const std::uint64_t id = impl_->nextListenerId++;
  impl_->listeners.emplace_back(id, std::make_shared<const HeadersListener>(std::move(listener)));
  return id;
}

void QSManager::removeHeadersListener(std::uint64_t id) {
  std::lock_guard lock(impl_->listenersMutex);
  std::erase_if(impl_->listeners, [id](const auto& entry) { return entry.first == id; });
}

void QSManager::reportError(const std::string& message) {
  impl_->managerHelper->reportError(message);
}

void QSManager::captchaSuccess() { impl_->managerHelper->sendAppActivity(QSAppStateNewSession); }

void QSManager::setCustomParameters(const Value& parameters) {
  if (!parameters.is_null() && !parameters.is_object()) {
    impl_->log("setCustomParameters - ignoring custom parameters that are not a map",
               LogLevel::Warning);
    return;
  }
  // An empty map clears the parameters.
  if (parameters.is_null() || (parameters.is_object() && parameters.empty())) {
    impl_->storage->saveCustomParams(std::nullopt);
  } else {
    impl_->storage->saveCustomParams(parameters);
  }
}

HeaderMap QSManager::httpHeaders() const {
  HeaderMap headers;
  auto cookie = impl_->storage->getCookie();
  if (cookie && !cookie->ttlExpired(impl_->platform.clock->now())) {
    headers.emplace(
        "X-QS-AUTHORIZATION",
        fmt::format("{}:{}", QSCookie::cookieLevelFrom(cookie->name()), cookie->token()));
    if (impl_->forceBlock.load()) {
      headers.emplace("X-QS-SIMULATE", "block");
    } else if (impl_->forceCaptcha.load()) {
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
  impl_->forceBlock.store(true);
  startWith(appId());
}

void QSManager::forceCaptchaToken() {
  impl_->forceCaptcha.store(true);
  startWith(appId());
}

void QSManager::resetDebugSettings() {
  impl_->forceBlock.store(false);
  impl_->forceCaptcha.store(false);
}

const Platform& QSManagerInternals::platform(const QSManager& manager) {
  return manager.impl_->platform;
}
const DeploymentSettings& QSManagerInternals::settings(const QSManager& manager) {
  return manager.impl_->settings;
}
const std::shared_ptr<QSStorage>& QSManagerInternals::storage(const QSManager& manager) {
  return manager.impl_->storage;
}
const std::shared_ptr<QSUtils>& QSManagerInternals::utils(const QSManager& manager) {
  return manager.impl_->utils;
}
const std::shared_ptr<QSUUID>& QSManagerInternals::uuid(const QSManager& manager) {
  return manager.impl_->uuid;
}
const std::shared_ptr<QSNetworkManager>& QSManagerInternals::networkManager(
    const QSManager& manager) {
  return manager.impl_->network;
}
void QSManagerInternals::announceHeaders(const QSManager& manager, const HeaderMap& headers) {
  std::vector<QSManager::Impl::Listener> listeners;
  {
    std::lock_guard lock(manager.impl_->listenersMutex);
    for (const auto& entry : manager.impl_->listeners) listeners.push_back(entry.second);
  }
  for (const auto& listener : listeners) {
    // A listener's exception must not unwind the network thread.
    try {
      (*listener)(headers);
    } catch (...) {
      manager.impl_->log("QSManager headers listener threw", LogLevel::Error);
    }
  }
}

QSManagerHelper& QSManagerInternals::managerHelper(const QSManager& manager) {
  return *manager.impl_->managerHelper;
}

}  // namespace qs

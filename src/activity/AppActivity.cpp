#include "activity/AppActivity.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <fmt/format.h>

#include "manager/QSReachability.h"
#include "quarrystone/Constants.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs {

namespace {

constexpr const char* kNull = "<null>";

// Truncates toward zero into the 32-bit range, saturating at its ends.
std::int32_t toInt32(double value) {
  if (std::isnan(value)) return 0;
  value = std::trunc(value);
  if (value >= static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
    return std::numeric_limits<std::int32_t>::max();
  }
  if (value <= static_cast<double>(std::numeric_limits<std::int32_t>::min())) {
    return std::numeric_limits<std::int32_t>::min();
  }
  return static_cast<std::int32_t>(value);
}

std::string connectionType(QSNetworkStatus status) {
  switch (status) {
    case QSNetworkStatusViaWWAN:
      return "Mobile";
    case QSNetworkStatusViaWiFi:
      return "WiFi";
    case QSNetworkStatusNotReachable:
      return "No internet";
    default:
      return "NA";
  }
}

}  // namespace

AppActivity::AppActivity(const Platform& platform, QSStorage& storage, QSUtils& utils, QSUUID& uuid)
    : platform_(platform), storage_(storage), utils_(utils), uuid_(uuid) {}

Value AppActivity::collectActivityData(QSAppState state) {
  Value details = Value::object();
  const std::string type = state == QSAppStateIdle ? QSFM_APP_IDLE : QSFM_APP_INIT;
  DeviceInfo& device = *platform_.device;

  auto screen = device.mainScreen();
  float height = screen ? static_cast<float>(screen->height) : 0.0f;
  float width = screen ? static_cast<float>(screen->width) : 0.0f;

  std::string carrierName;
  bool simSupport = false;
  if (auto carrier = device.subscriberCarrier()) {
    // A provider without a name reports the same empty name as no provider.
    carrierName = carrier->carrierName.value_or("");
    simSupport = carrier->isoCountryCode.has_value();
  }

  QSNetworkStatus status = QSNetworkStatusNotReachable;
  if (auto monitor = QSReachability::reachabilityForInternetConnection(platform_)) {
    monitor->startNotifier();
    status = monitor->currentReachabilityStatus();
  }

  BundleInfo bundle = device.bundle();
  std::string appVersion = kNull;
  if (bundle.shortVersion) {
    appVersion = *bundle.shortVersion;
    std::erase(appVersion, ' ');
  }

  const std::int32_t unixTime = toInt32(platform_.clock->now());
  std::vector<std::string> languages = device.preferredLanguages();
  const std::int32_t collectorTime = utils_.collectorExecutionTime();
  const std::int32_t managerTime = utils_.managerExecutionTime();

  details[QSFM_SCREEN_WIDTH] = width;
  details[QSFM_SCREEN_HEIGHT] = height;
  details[QSFM_SIM_SUPPORT] = simSupport;
  details[QSFM_CONNECTION_TYPE] = connectionType(status);
  details[QSFM_DEVICE_OS_VERSION] = device.systemVersion();
  details[QSFM_DEVICE_MODEL] = utils_.deviceModel();
  details[QSFM_DEVICE_NAME] = device.deviceName();
  details[QSFM_DEVICE_OS_NAME] = device.systemName();
  details[QSFM_UNIX_TIME] = unixTime;
  details[QSFM_APP_STATE] = appStateStr(state);
  details[QSFM_CARRIER] = carrierName;
  details[QSFM_SDK_VERSION] = QS_SDK_VERSION;
  details[QSFM_APP_VERSION] = appVersion;
  details[QSFM_APP_NAME] = bundle.name.value_or(kNull);
  details[QSFM_APP_IDENTIFIER] = bundle.identifier.value_or(kNull);
  if (collectorTime > 0) details[QSFM_COLLECTOR_REQUEST_RTT] = collectorTime;
  if (managerTime > 0) details[QSFM_MANAGER_READY_TIME_INTERVAL] = managerTime;
  addFingerprintsTo(details);

  if (type == QSFM_APP_INIT) {
    addCustomParamsTo(details);
    details[QSFM_DEVICE_SUPPORTED_LANGUAGES] = languages;
    details[QSFM_APP_SUPPORTED_LANGUAGES] = bundle.preferredLocalizations;
    details[QSFM_RESUME_COUNTER] = getResumeCounter();
  }
  return toQSActivityPayload(std::move(details), type);
}

Value AppActivity::toQSActivityPayload(Value details, const std::string& activityType) {
  Value payload = Value::object();
  payload["t"] = activityType;
  payload["d"] = std::move(details);
  return payload;
}

void AppActivity::addFingerprintsTo(Value& details) {
  const std::string f1 = uuid_.UUID();
  std::string f2 = platform_.device->globallyUniqueString();
  std::erase(f2, '-');
  if (f2.size() >= 9) f2.resize(8);
  const std::string f3 = utils_.sha1(fmt::format("{}|,|{}|,|{}", utils_.deviceModel(), f1, f2));
  details[QSFM_FINGERPRINT1] = f1;
  details[QSFM_FINGERPRINT2] = f2;
  details[QSFM_FINGERPRINT3] = f3;
}

void AppActivity::addCustomParamsTo(Value& details) {
  auto params = storage_.getCustomParams();
  if (!params) return;
  for (const auto& [key, value] : params->items()) details[key] = value;
}

std::string AppActivity::appStateStr(QSAppState state) {
  switch (state) {
    case QSAppStateNewSession:
      return "new_session";
    case QSAppStateBackgroundToForeground:
      return "bg_to_fg";
    case QSAppStateWakeup:
      return "wakeup";
    default:
      return "idle";
  }
}

std::int32_t AppActivity::getResumeCounter() {
  std::int32_t next = 1;
  if (auto stored = storage_.getAppResumeCounter()) {
    // The stored number's integer value; a counter at the top of the range stays there.
    double current = stored->get<double>();
    next = current >= static_cast<double>(std::numeric_limits<std::int32_t>::max())
               ? std::numeric_limits<std::int32_t>::max()
               : toInt32(current) + 1;
  }
  storage_.saveAppResumeCounter(Value(next));
  return next;
}

}  // namespace qs

#include "activity/QSUtils.h"

#include <cmath>
#include <limits>
#include <string_view>

#include <fmt/format.h>

namespace qs {

namespace {

struct DeviceName {
  std::string_view code;
  std::string_view name;
};

// Hardware codes of the phones and tablets the library knows by name. A
// constant table, not a map: the library's threads may still read it while
// the host's exit handlers run, so it must need no destruction.
constexpr DeviceName kDeviceNamesByCode[] = {
    {"i386", "Simulator"},
    {"x86_64", "Simulator"},
    {"iPod1,1", "iPod Touch"},
    {"iPod2,1", "iPod Touch"},
    {"iPod3,1", "iPod Touch"},
    {"iPod4,1", "iPod Touch"},
    {"iPod7,1", "iPod Touch"},
    {"iPhone1,1", "iPhone"},
    {"iPhone1,2", "iPhone"},
    {"iPhone2,1", "iPhone"},
    {"iPad1,1", "iPad"},
    {"iPad2,1", "iPad 2"},
    {"iPad3,1", "iPad"},
    {"iPhone3,1", "iPhone 4"},
    {"iPhone3,3", "iPhone 4"},
    {"iPhone4,1", "iPhone 4S"},
    {"iPhone5,1", "iPhone 5"},
    {"iPhone5,2", "iPhone 5"},
    {"iPad3,4", "iPad"},
    {"iPad2,5", "iPad Mini"},
    {"iPhone5,3", "iPhone 5c"},
    {"iPhone5,4", "iPhone 5c"},
    {"iPhone6,1", "iPhone 5s"},
    {"iPhone6,2", "iPhone 5s"},
    {"iPhone7,1", "iPhone 6 Plus"},
    {"iPhone7,2", "iPhone 6"},
    {"iPhone8,1", "iPhone 6S"},
    {"iPhone8,2", "iPhone 6S Plus"},
    {"iPhone8,4", "iPhone SE"},
    {"iPhone9,1", "iPhone 7"},
    {"iPhone9,3", "iPhone 7"},
    {"iPhone9,2", "iPhone 7 Plus"},
    {"iPhone9,4", "iPhone 7 Plus"},
    {"iPad4,1", "iPad Air"},
    {"iPad4,2", "iPad Air"},
    {"iPad4,4", "iPad Mini"},
    {"iPad4,5", "iPad Mini"},
    {"iPad4,7", "iPad Mini"},
    {"iPad6,7", "iPad Pro (12.9\")"},
    {"iPad6,8", "iPad Pro (12.9\")"},
    {"iPad6,3", "iPad Pro (9.7\")"},
    {"iPad6,4", "iPad Pro (9.7\")"},
};

// Seconds to whole milliseconds, truncated toward zero and kept in range.
std::int32_t toMilliseconds(double seconds) {
  double ms = seconds * 1000.0;
  if (!std::isfinite(ms)) return 0;
  if (ms >= static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
    return std::numeric_limits<std::int32_t>::max();
  }
  if (ms <= static_cast<double>(std::numeric_limits<std::int32_t>::min())) {
    return std::numeric_limits<std::int32_t>::min();
  }
  return static_cast<std::int32_t>(ms);
}

}  // namespace

QSUtils::QSUtils(Platform platform, std::shared_ptr<QSStorage> storage)
    : platform_(std::move(platform)), storage_(std::move(storage)) {}

std::string QSUtils::deviceModel() { return deviceModelFor(platform_.device->machine()); }

std::string QSUtils::deviceModelFor(std::string_view machine) {
  for (const auto& entry : kDeviceNamesByCode) {
    if (entry.code == machine) return std::string(entry.name);
  }
  if (machine.find("iPod") != std::string_view::npos) return "iPod Touch";
  if (machine.find("iPad") != std::string_view::npos) return "iPad";
  if (machine.find("iPhone") != std::string_view::npos) return "iPhone";
  return "Unknown";
}

std::string QSUtils::sha1(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  auto digest = platform_.crypto->sha1(text);
  std::string hex;
  hex.reserve(digest.size() * 2);
  for (std::uint8_t byte : digest) {
    hex.push_back(kHex[byte >> 4]);
    hex.push_back(kHex[byte & 0xF]);
  }
  return hex;
}

std::optional<Value> QSUtils::dictionaryFromData(const std::optional<std::string>& data) {
  if (!data) return std::nullopt;
  Value parsed = Value::parse(*data, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

void QSUtils::startTimerForManagerStart() { managerStartDate_.store(platform_.clock->now()); }

void QSUtils::stopTimerForManagerStart() {
  double start = managerStartDate_.load();
  // Without a start the reading stays 0, which keeps it out of activities.
  double elapsed = start > 0 ? platform_.clock->now() - start : 0;
  managerExecutionSeconds_.store(elapsed);
  platform_.log->write(fmt::format("start --> ready - executionTime = {:.4f}", elapsed));
}

void QSUtils::startTimerForCollectorRequest() {
  collectorRequestStartDate_.store(platform_.clock->now());
}

void QSUtils::stopTimerForCollectorRequest() {
  double start = collectorRequestStartDate_.load();
  double elapsed = start > 0 ? platform_.clock->now() - start : 0;
  collectorExecutionSeconds_.store(elapsed);
  platform_.log->write(fmt::format("request start --> response - executionTime = {:.4f}", elapsed));
}

std::int32_t QSUtils::collectorExecutionTime() const {
  return toMilliseconds(collectorExecutionSeconds_.load());
}

std::int32_t QSUtils::managerExecutionTime() const {
  return toMilliseconds(managerExecutionSeconds_.load());
}

void QSUtils::resetCollectorSid() { storage_->saveSid(std::nullopt); }

void QSUtils::resetQSStorage() {
  storage_->saveSid(std::nullopt);
  storage_->saveVid(std::nullopt);
  storage_->saveCookie(std::nullopt);
  storage_->saveAppResumeCounter(std::nullopt);
  storage_->synchronize();
}

bool QSUtils::shouldSaveNewCookie(const QSCookie& cookie) {
  auto stored = storage_->getCookie();
  if (!stored || stored->token() != cookie.token()) return true;
  // Neither cookie ever has a time to live assigned, so both count as 0 and
  // an equal token is never saved again.
  long long storedTtl = static_cast<long long>(stored->ttl().value_or(0));
  long long newTtl = static_cast<long long>(cookie.ttl().value_or(0));
  if (storedTtl != newTtl) return true;
  platform_.log->write("cookies are the same, there is no point in saving");
  return false;
}

}  // namespace qs

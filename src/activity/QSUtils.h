#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/QSCookie.h"
#include "collector/QSStorage.h"
#include "quarrystone/Value.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// Small shared facts and the two stopwatches whose readings travel in every
// app activity. Thread-safe: the readings are atomics.
class QSUtils {
 public:
  QSUtils(Platform platform, std::shared_ptr<QSStorage> storage);

  // The model name for this machine's hardware code (table, then fallbacks).
  std::string deviceModel();
  static std::string deviceModelFor(std::string_view machine);
  // 40 lower-case hex characters.
  std::string sha1(std::string_view text);
  // The JSON value in `data`, or nullopt for absent or malformed data.
  static std::optional<Value> dictionaryFromData(const std::optional<std::string>& data);

  void startTimerForManagerStart();
  void stopTimerForManagerStart();
  void startTimerForCollectorRequest();
  void stopTimerForCollectorRequest();
  // Readings in whole milliseconds, truncated; 0 before the first stop.
  std::int32_t collectorExecutionTime() const;
  std::int32_t managerExecutionTime() const;

  void resetCollectorSid();
  void resetQSStorage();
  // Whether `cookie` is to replace the stored one.
  bool shouldSaveNewCookie(const QSCookie& cookie);

 private:
  const Platform platform_;
  const std::shared_ptr<QSStorage> storage_;
  std::atomic<double> managerStartDate_{0};
  std::atomic<double> managerExecutionSeconds_{0};
  std::atomic<double> collectorRequestStartDate_{0};
  std::atomic<double> collectorExecutionSeconds_{0};
};

}  // namespace qs

#pragma once

#include <cstdint>
#include <string>

#include "activity/QSUUID.h"
#include "activity/QSUtils.h"
#include "collector/QSStorage.h"
#include "quarrystone/Value.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// The activity state an app activity reports. Any value is accepted; values
// other than these four report "idle".
using QSAppState = std::int64_t;
inline constexpr QSAppState QSAppStateNewSession = 0;
inline constexpr QSAppState QSAppStateBackgroundToForeground = 1;
inline constexpr QSAppState QSAppStateWakeup = 2;
inline constexpr QSAppState QSAppStateIdle = 3;

// Builds app activity payloads {"t": type, "d": details} from device, app,
// network, timing and fingerprint facts. Keeps no state between calls; runs
// on its caller's thread. All references are weak.
class AppActivity {
 public:
  AppActivity(const Platform& platform, QSStorage& storage, QSUtils& utils, QSUUID& uuid);

  Value collectActivityData(QSAppState state);
  // {"t": type, "d": details}
  static Value toQSActivityPayload(Value details, const std::string& activityType);
  void addFingerprintsTo(Value& details);
  void addCustomParamsTo(Value& details);
  static std::string appStateStr(QSAppState state);
  // The stored counter plus one (1 when none), saved before it is returned.
  std::int32_t getResumeCounter();

 protected:
  const Platform& platform_;
  QSStorage& storage_;
  QSUtils& utils_;
  QSUUID& uuid_;
};

}  // namespace qs

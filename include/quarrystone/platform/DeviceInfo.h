#pragma once

#include <optional>
#include <string>
#include <vector>

#include "quarrystone/Export.h"

namespace qs {

struct ScreenInfo {
  double width = 0;   // points
  double height = 0;  // points
  double scale = 1;
};

struct CarrierInfo {
  std::optional<std::string> carrierName;
  std::optional<std::string> isoCountryCode;
};

// What the host declares about itself (its "bundle"). Absent values are sent
// as "<null>".
struct BundleInfo {
  std::optional<std::string> shortVersion;  // "CFBundleShortVersionString"
  std::optional<std::string> name;          // "CFBundleName"
  std::optional<std::string> identifier;
  std::vector<std::string> preferredLocalizations;
};

// Facts about the device, the OS and the host app. Thread-safe.
class QS_EXPORT DeviceInfo {
 public:
  virtual ~DeviceInfo() = default;
  virtual std::string machine() = 0;        // hardware code, e.g. "x86_64"
  virtual std::string systemName() = 0;     // OS name
  virtual std::string systemVersion() = 0;  // OS version
  virtual std::string deviceName() = 0;     // user-assigned device name
  virtual std::optional<ScreenInfo> mainScreen() = 0;
  virtual std::optional<CarrierInfo> subscriberCarrier() = 0;  // nullopt: no provider
  virtual std::vector<std::string> preferredLanguages() = 0;
  virtual BundleInfo bundle() = 0;
  // A new globally unique string on every call (UUID-like, with "-").
  virtual std::string globallyUniqueString() = 0;
  // A new random UUID in canonical upper- or lower-case text form.
  virtual std::string newUUID() = 0;
};

}  // namespace qs

#pragma once

#include <mutex>
#include <string>

#include "quarrystone/platform/DeviceInfo.h"

namespace qs {

// The process's UUID: made on first use, lower case, the same for the life
// of this object graph (one per process in production). Thread-safe.
class QSUUID {
 public:
  explicit QSUUID(DeviceInfo& device) : device_(device) {}
  std::string UUID();

 private:
  DeviceInfo& device_;  // weak
  std::once_flag once_;
  std::string uuid_;
};

}  // namespace qs

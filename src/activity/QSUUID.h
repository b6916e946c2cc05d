#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "quarrystone/platform/DeviceInfo.h"

namespace qs {

// The process's UUID: made on first use, lower case, the same for the life
// of this object graph (one per process in production). Thread-safe.
class QSUUID {
 public:
  explicit QSUUID(std::shared_ptr<DeviceInfo> device) : device_(std::move(device)) {}
  std::string UUID();

 private:
  const std::shared_ptr<DeviceInfo> device_;
  std::once_flag once_;
  std::string uuid_;
};

}  // namespace qs

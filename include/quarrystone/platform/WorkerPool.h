#pragma once

#include <functional>

#include "quarrystone/Export.h"

namespace qs {

// Runs tasks off the caller's thread, side by side, with no limit set on how
// many run at once (the operation queue's threads). Thread-safe.
class QS_EXPORT WorkerPool {
 public:
  virtual ~WorkerPool() = default;
  virtual void post(std::function<void()> task) = 0;
};

}  // namespace qs

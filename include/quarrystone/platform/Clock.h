#pragma once

#include "quarrystone/Export.h"

namespace qs {

// Wall-clock time in seconds since 1970-01-01 00:00 UTC. Thread-safe.
class QS_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  virtual double now() const = 0;
};

}  // namespace qs

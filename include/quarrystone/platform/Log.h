#pragma once

#include <string_view>

#include "quarrystone/Export.h"

namespace qs {

// Receives one diagnostic line at a time, without a trailing line feed.
// Called from any thread; implementations must be thread-safe.
class QS_EXPORT Log {
 public:
  virtual ~Log() = default;
  virtual void write(std::string_view line) = 0;
};

}  // namespace qs

#pragma once

#include <string_view>

#include "quarrystone/Export.h"

namespace qs {

// How much a log line matters. The library's step-by-step trace
// ("--> setTimerForTokenRenew") is Debug; Warning is something that went
// wrong and was handled (a failed exchange, a damaged store); Error is a
// misuse or a fault the host should look at.
enum class LogLevel { Debug, Info, Warning, Error };

// Receives one diagnostic line at a time, without a trailing line feed.
// Called from any thread; implementations must be thread-safe.
class QS_EXPORT Log {
 public:
  virtual ~Log() = default;
  virtual void write(LogLevel level, std::string_view line) = 0;
  // A trace line (Debug).
  void write(std::string_view line) { write(LogLevel::Debug, line); }
};

}  // namespace qs

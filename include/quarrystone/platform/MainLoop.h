#pragma once

#include <functional>
#include <memory>

#include "quarrystone/Export.h"

namespace qs {

// A one-shot timer on the main loop. Valid from scheduling until it fires or
// is invalidated. isValid/invalidate may be called from any thread; once
// invalidate has returned the timer's function will not start.
class QS_EXPORT Timer {
 public:
  virtual ~Timer() = default;
  virtual bool isValid() const = 0;
  virtual void invalidate() = 0;
};

// The thread that runs the platform main loop ("the main thread"): timers
// fire and notifications from the platform are delivered there.
class QS_EXPORT MainLoop {
 public:
  virtual ~MainLoop() = default;

  // Runs fn later on the main thread. Callable from any thread.
  virtual void dispatchAsync(std::function<void()> fn) = 0;

  // Schedules fn to run once, `seconds` from now; a non-positive interval
  // fires at the earliest moment. REQUIRES: called on the main thread.
  virtual std::shared_ptr<Timer> scheduleTimer(double seconds, std::function<void()> fn) = 0;

  // True when the calling thread is the main thread.
  virtual bool isMainThread() const = 0;
};

}  // namespace qs

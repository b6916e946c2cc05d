#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "quarrystone/platform/Clock.h"
#include "quarrystone/platform/MainLoop.h"

namespace qs::fake {

// A settable wall clock. Thread-safe.
class FakeClock final : public Clock {
 public:
  explicit FakeClock(double start = 1'700'000'000.0) : now_(start) {}
  double now() const override { return now_.load(); }
  void set(double seconds) { now_.store(seconds); }
  void advance(double seconds) { now_.store(now_.load() + seconds); }

 private:
  std::atomic<double> now_;
};

// A main loop that runs only when the test drives it, on the test's thread,
// in virtual time: dispatched functions run in order, and advancing the clock
// fires due timers in order of their fire time (then of scheduling).
class FakeMainLoop final : public MainLoop {
 public:
  explicit FakeMainLoop(std::shared_ptr<FakeClock> clock);

  void dispatchAsync(std::function<void()> fn) override;
  std::shared_ptr<Timer> scheduleTimer(double seconds, std::function<void()> fn) override;
  // The thread that created the loop counts as the main thread.
  bool isMainThread() const override { return std::this_thread::get_id() == mainThread_; }

  // Runs dispatched functions and timers due now until none is left.
  void runUntilIdle();
  // Moves the clock forward by `seconds`, firing every timer that falls due
  // on the way at its exact time, then runs until idle.
  void advance(double seconds);
  // Advances to the next pending timer's fire time and fires it. False if none.
  bool fireNextTimer();

  // Timers scheduled, not fired, not invalidated.
  std::size_t pendingTimerCount() const;
  // Fire time of the earliest pending timer, or a negative number if none.
  double nextFireTime() const;
  std::size_t queuedDispatchCount() const;

 private:
  struct FakeTimer;
  bool runOneDispatch();
  bool fireOneDueTimer(double upTo);

  std::shared_ptr<FakeClock> clock_;
  std::thread::id mainThread_;
  mutable std::mutex mutex_;
  std::vector<std::function<void()>> dispatches_;   // guarded by mutex_
  std::vector<std::shared_ptr<FakeTimer>> timers_;  // guarded by mutex_
  std::uint64_t sequence_ = 0;                      // guarded by mutex_
};

}  // namespace qs::fake

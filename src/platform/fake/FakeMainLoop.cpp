#include "FakeMainLoop.h"

#include <algorithm>

namespace qs::fake {

struct FakeMainLoop::FakeTimer final : Timer {
  double fireTime = 0;
  std::uint64_t sequence = 0;
  std::function<void()> fn;
  std::atomic<bool> valid{true};

  bool isValid() const override { return valid.load(); }
  void invalidate() override { valid.store(false); }
};

FakeMainLoop::FakeMainLoop(std::shared_ptr<FakeClock> clock)
    : clock_(std::move(clock)), mainThread_(std::this_thread::get_id()) {}

void FakeMainLoop::dispatchAsync(std::function<void()> fn) {
  std::lock_guard lock(mutex_);
  dispatches_.push_back(std::move(fn));
}

std::shared_ptr<Timer> FakeMainLoop::scheduleTimer(double seconds, std::function<void()> fn) {
  auto timer = std::make_shared<FakeTimer>();
  timer->fireTime = clock_->now() + std::max(0.0, seconds);
  timer->fn = std::move(fn);
  std::lock_guard lock(mutex_);
  timer->sequence = ++sequence_;
  timers_.push_back(timer);
  return timer;
}

bool FakeMainLoop::runOneDispatch() {
  std::function<void()> fn;
  {
    std::lock_guard lock(mutex_);
    if (dispatches_.empty()) return false;
    fn = std::move(dispatches_.front());
    dispatches_.erase(dispatches_.begin());
  }
  fn();
  return true;
}

bool FakeMainLoop::fireOneDueTimer(double upTo) {
  std::shared_ptr<FakeTimer> due;
  {
    std::lock_guard lock(mutex_);
    std::erase_if(timers_, [](const auto& t) { return !t->valid.load(); });
    for (const auto& t : timers_) {
      if (t->fireTime <= upTo && (!due || t->fireTime < due->fireTime ||
                                  (t->fireTime == due->fireTime && t->sequence < due->sequence))) {
        due = t;
      }
    }
    if (!due) return false;
    std::erase(timers_, due);
  }
  if (clock_->now() < due->fireTime) clock_->set(due->fireTime);
  // A timer stops being valid as it fires.
  if (due->valid.exchange(false)) due->fn();
  return true;
}

void FakeMainLoop::runUntilIdle() {
  while (runOneDispatch() || fireOneDueTimer(clock_->now())) {
  }
}

void FakeMainLoop::advance(double seconds) {
  const double target = clock_->now() + seconds;
  runUntilIdle();
  while (fireOneDueTimer(target)) runUntilIdle();
  if (clock_->now() < target) clock_->set(target);
  runUntilIdle();
}

bool FakeMainLoop::fireNextTimer() {
  runUntilIdle();
  double next = nextFireTime();
  if (next < 0) return false;
  fireOneDueTimer(next);
  runUntilIdle();
  return true;
}

std::size_t FakeMainLoop::pendingTimerCount() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(timers_.begin(), timers_.end(), [](const auto& t) { return t->valid.load(); }));
}

double FakeMainLoop::nextFireTime() const {
  std::lock_guard lock(mutex_);
  double next = -1;
  for (const auto& t : timers_) {
    if (t->valid.load() && (next < 0 || t->fireTime < next)) next = t->fireTime;
  }
  return next;
}

std::size_t FakeMainLoop::queuedDispatchCount() const {
  std::lock_guard lock(mutex_);
  return dispatches_.size();
}

}  // namespace qs::fake

// The GLib loop on a thread of its own, and its timer edge cases.
#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <future>
#include <limits>

#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

std::size_t threadCount() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    ++n;
  return n;
}

// Runs fn on the loop and waits (bounded) until it has run.
bool runOnLoop(MainLoop& loop, std::function<void()> fn) {
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  loop.dispatchAsync([fn = std::move(fn), done] {
    fn();
    done->set_value();
  });
  return future.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
}

TEST(GlibMainLoop, OwnThreadRunsDispatchesAndTimersAndIsJoinedOnDestruction) {
  const std::size_t before = threadCount();
  auto loop = makeGlibMainLoop(nullptr);
  EXPECT_EQ(threadCount(), before + 1);
  EXPECT_FALSE(loop->isMainThread());

  std::thread::id loopThread;
  bool onMain = false;
  ASSERT_TRUE(runOnLoop(*loop, [&] {
    loopThread = std::this_thread::get_id();
    onMain = loop->isMainThread();
  }));
  EXPECT_TRUE(loopThread != std::this_thread::get_id());
  EXPECT_TRUE(onMain);

  std::promise<std::thread::id> fired;
  auto timer = loop->scheduleTimer(0.01, [&] { fired.set_value(std::this_thread::get_id()); });
  auto firedOn = fired.get_future();
  ASSERT_EQ(firedOn.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(firedOn.get() == loopThread);

  auto pending = loop->scheduleTimer(3600, [] {});
  loop.reset();
  EXPECT_EQ(threadCount(), before);
  EXPECT_FALSE(pending->isValid());  // destruction invalidates what never fired
}

// Invalidation from another thread racing the timer's firing, at staggered
// moments: the function must never start once invalidate() has returned, and
// ThreadSanitizer sees the timer's state touched from both threads.
TEST(GlibMainLoop, InvalidateFromAnotherThreadRacesFiringSafely) {
  auto loop = makeGlibMainLoop(nullptr);
  auto violations = std::make_shared<std::atomic<int>>(0);
  for (int i = 0; i < 2000; ++i) {
    auto invalidated = std::make_shared<std::atomic<bool>>(false);
    auto timer = loop->scheduleTimer(0, [invalidated, violations] {
      if (invalidated->load()) violations->fetch_add(1);
    });
    for (int spin = 0; spin < (i % 100) * 10; ++spin)
      std::atomic_signal_fence(std::memory_order_seq_cst);
    timer->invalidate();
    invalidated->store(true);
  }
  ASSERT_TRUE(runOnLoop(*loop, [] {}));
  EXPECT_EQ(violations->load(), 0);
}

TEST(GlibMainLoop, OddIntervalsAreClampedSafely) {
  GMainContext* context = g_main_context_new();
  auto loop = makeGlibMainLoop(context);
  int fired = 0;
  auto nan = loop->scheduleTimer(std::nan(""), [&] { ++fired; });
  auto huge = loop->scheduleTimer(1e300, [&] { fired += 100; });
  auto infinite =
      loop->scheduleTimer(std::numeric_limits<double>::infinity(), [&] { fired += 100; });
  while (g_main_context_iteration(context, FALSE)) {
  }
  EXPECT_EQ(fired, 1);
  EXPECT_FALSE(nan->isValid());
  EXPECT_TRUE(huge->isValid());
  EXPECT_TRUE(infinite->isValid());
  loop.reset();
  EXPECT_FALSE(huge->isValid());
  g_main_context_unref(context);
}

}  // namespace
}  // namespace qs

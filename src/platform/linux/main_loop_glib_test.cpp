// The GLib loop on a thread of its own, and its timer edge cases.
#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <future>
#include <limits>
#include <thread>
#include <vector>

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
  std::thread([] {}).join();  // a sanitizer's helper thread starts with the first thread
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
// moments: each function runs at most once and every timer ends invalid,
// while ThreadSanitizer watches the timer's state touched from both threads.
TEST(GlibMainLoop, InvalidateRacingTheFiringIsSafe) {
  auto loop = makeGlibMainLoop(nullptr);
  std::vector<std::shared_ptr<Timer>> timers;
  std::vector<std::shared_ptr<std::atomic<int>>> runs;
  for (int i = 0; i < 2000; ++i) {
    auto count = std::make_shared<std::atomic<int>>(0);
    timers.push_back(loop->scheduleTimer(0, [count] { count->fetch_add(1); }));
    runs.push_back(count);
    for (int spin = 0; spin < (i % 100) * 10; ++spin) {
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    timers.back()->invalidate();
  }
  ASSERT_TRUE(runOnLoop(*loop, [] {}));
  int ran = 0;
  for (std::size_t i = 0; i < timers.size(); ++i) {
    EXPECT_LE(runs[i]->load(), 1);
    EXPECT_FALSE(timers[i]->isValid());
    ran += runs[i]->load();
  }
  EXPECT_LT(ran, 2000);  // invalidation won at least sometimes
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

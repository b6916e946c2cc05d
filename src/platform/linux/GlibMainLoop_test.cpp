// The GLib loop on a thread of its own, and its timer edge cases.
#include <glib.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <future>
#include <limits>
#include <thread>

#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

std::size_t threadCount() {
  auto tasks = std::filesystem::directory_iterator("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

TEST(GlibMainLoop, OwnThreadRunsDispatchesAndTimersAndIsJoinedOnDestruction) {
  std::thread([] {}).join();  // a sanitizer's helper thread starts with the first thread
  const std::size_t before = threadCount();
  auto loop = makeGlibMainLoop(nullptr);
  EXPECT_EQ(threadCount(), before + 1);
  EXPECT_FALSE(loop->isMainThread());

  std::promise<std::pair<std::thread::id, bool>> dispatched, fired;
  loop->dispatchAsync([&] {
    dispatched.set_value({std::this_thread::get_id(), loop->isMainThread()});
  });
  loop->scheduleTimer(0.01, [&] { fired.set_value({std::this_thread::get_id(), true}); });
  auto first = dispatched.get_future(), second = fired.get_future();
  ASSERT_EQ(second.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  auto [loopThread, onMain] = first.get();
  EXPECT_TRUE(loopThread != std::this_thread::get_id() && onMain);
  EXPECT_TRUE(second.get().first == loopThread);

  auto pending = loop->scheduleTimer(3600, [] {});
  loop.reset();
  EXPECT_EQ(threadCount(), before);
  EXPECT_FALSE(pending->isValid());  // destruction invalidates what never fired
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
  EXPECT_TRUE(huge->isValid() && infinite->isValid());
  loop.reset();
  EXPECT_FALSE(huge->isValid());
  g_main_context_unref(context);
}

}  // namespace
}  // namespace qs

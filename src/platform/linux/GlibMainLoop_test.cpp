// The GLib loop on a thread of its own, and its timer edge cases.
#include <glib.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <future>
#include <limits>
#include <thread>
#include <vector>

#include "GlibContext.h"
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

// Polls `done` for at most ten seconds.
bool eventually(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

TEST(GlibMainLoop, OnDemandThreadEndsWhenIdleAndComesBackForWork) {
  using namespace std::chrono_literals;
  std::thread([] {}).join();
  const std::size_t before = threadCount();
  auto loop = makeOnDemandGlibLoop(50ms);
  ASSERT_TRUE(eventually([&] { return threadCount() == before; })) << "never ended";

  // A dispatch brings a thread back, which the loop knows as its own; a
  // busy loop keeps it well past its idle time.
  std::promise<bool> ran;
  loop->dispatchAsync([&] {
    setGlibLoopBusy(*loop, true);
    ran.set_value(loop->isMainThread());
  });
  EXPECT_TRUE(ran.get_future().get());
  EXPECT_FALSE(loop->isMainThread());
  std::this_thread::sleep_for(250ms);
  EXPECT_EQ(threadCount(), before + 1) << "a busy loop lost its thread";
  loop->dispatchAsync([&] { setGlibLoopBusy(*loop, false); });
  ASSERT_TRUE(eventually([&] { return threadCount() == before; }));

  // A timer set while no thread runs still fires, on the loop.
  std::promise<bool> fired;
  auto timer = loop->scheduleTimer(0.02, [&] { fired.set_value(loop->isMainThread()); });
  auto firedFuture = fired.get_future();
  ASSERT_EQ(firedFuture.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(firedFuture.get());

  // Threads that end as work arrives lose none of it.
  auto racing = makeOnDemandGlibLoop(1ms);
  std::vector<std::thread> senders;
  std::atomic<int> done{0};
  for (int t = 0; t < 4; ++t) {
    senders.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        std::promise<void> served;
        racing->dispatchAsync([&] { served.set_value(); });
        if (served.get_future().wait_for(10s) != std::future_status::ready) return;
        ++done;
        if (i % 16 == 0) std::this_thread::sleep_for(2ms);  // let the thread end now and then
      }
    });
  }
  for (auto& sender : senders) sender.join();
  EXPECT_EQ(done.load(), 800);

  // Released from its own dispatch, the loop lets its thread finish alone.
  std::promise<void> released;
  auto* raw = racing.get();
  raw->dispatchAsync([&racing, &released] {
    racing.reset();
    released.set_value();
  });
  released.get_future().get();
  loop.reset();
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
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

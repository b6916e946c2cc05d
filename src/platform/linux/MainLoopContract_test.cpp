// One suite for every MainLoop: the virtual-time fake and the GLib loop on a
// context the test iterates itself.
#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <vector>

#include "platform/fake/FakeMainLoop.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

struct FakeLoopDriver {
  std::shared_ptr<fake::FakeClock> clock = std::make_shared<fake::FakeClock>();
  std::shared_ptr<fake::FakeMainLoop> fakeLoop = std::make_shared<fake::FakeMainLoop>(clock);
  std::shared_ptr<MainLoop> loop = fakeLoop;

  // Advances virtual time until `done`, for at most ten virtual seconds.
  bool runUntil(const std::function<bool()>& done) {
    for (int step = 0; step < 1000 && !done(); ++step) fakeLoop->advance(0.01);
    return done();
  }
};

struct GlibHostLoopDriver {
  GMainContext* context = g_main_context_new();
  std::shared_ptr<MainLoop> loop = makeGlibMainLoop(context);
  ~GlibHostLoopDriver() {
    loop.reset();
    g_main_context_unref(context);
  }

  // Iterates the context until `done`, for at most ten real seconds.
  bool runUntil(const std::function<bool()>& done) {
    bool expired = false;
    GSource* guard = g_timeout_source_new(10000);
    g_source_set_callback(
        guard,
        [](gpointer flag) -> gboolean {
          *static_cast<bool*>(flag) = true;
          return G_SOURCE_REMOVE;
        },
        &expired, nullptr);
    g_source_attach(guard, context);
    while (!done() && !expired) g_main_context_iteration(context, TRUE);
    g_source_destroy(guard);
    g_source_unref(guard);
    return done();
  }
};

template <typename Driver>
class MainLoopContract : public testing::Test {
 protected:
  Driver driver_;
  MainLoop& loop() { return *driver_.loop; }
};

using LoopDrivers = testing::Types<FakeLoopDriver, GlibHostLoopDriver>;
TYPED_TEST_SUITE(MainLoopContract, LoopDrivers);

TYPED_TEST(MainLoopContract, TimersFireInIntervalOrderUnlessInvalidated) {
  // Intervals count from each call, so they are far apart: on a loaded
  // machine (sanitizers, parallel builds) the calls themselves can be
  // several milliseconds apart.
  std::vector<int> fired;
  this->loop().scheduleTimer(0.3, [&] { fired.push_back(3); });
  auto cancelled = this->loop().scheduleTimer(0.1, [&] { fired.push_back(99); });
  this->loop().scheduleTimer(0.2, [&] { fired.push_back(2); });
  this->loop().scheduleTimer(-1, [&] { fired.push_back(1); });
  auto last = this->loop().scheduleTimer(0.4, [&] { fired.push_back(4); });
  EXPECT_TRUE(cancelled->isValid());
  cancelled->invalidate();
  EXPECT_FALSE(cancelled->isValid());
  bool dispatched = false;
  this->loop().dispatchAsync([&] { dispatched = true; });
  EXPECT_FALSE(dispatched);  // never inline

  EXPECT_TRUE(this->driver_.runUntil([&] { return fired.size() >= 4; }));
  EXPECT_EQ(fired, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_TRUE(dispatched);
  EXPECT_FALSE(last->isValid());  // a fired timer is no longer valid
}

TYPED_TEST(MainLoopContract, DispatchesFromOtherThreadsRunInOrderOnTheMainThread) {
  constexpr int kPerThread = 100;
  std::vector<std::pair<int, int>> ran;  // main thread only
  bool allOnMain = true;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      EXPECT_FALSE(this->loop().isMainThread());
      for (int i = 0; i < kPerThread; ++i) {
        this->loop().dispatchAsync([&, t, i] {
          allOnMain = allOnMain && this->loop().isMainThread();
          ran.emplace_back(t, i);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(this->loop().isMainThread());
  EXPECT_TRUE(this->driver_.runUntil([&] { return ran.size() == 2 * kPerThread; }));
  EXPECT_TRUE(allOnMain);
  int expected[2] = {0, 0};
  for (auto [t, i] : ran) EXPECT_EQ(i, expected[t]++);
}

}  // namespace
}  // namespace qs

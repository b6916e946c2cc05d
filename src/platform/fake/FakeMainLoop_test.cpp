#include "FakeMainLoop.h"

#include <gtest/gtest.h>

#include <vector>

namespace qs::fake {

TEST(FakeMainLoop, TimersFireInOrderAtTheirExactTime) {
  auto clock = std::make_shared<FakeClock>(1000);
  FakeMainLoop loop(clock);
  std::vector<std::pair<int, double>> fired;
  loop.scheduleTimer(60, [&] { fired.emplace_back(1, clock->now()); });
  auto cancelled = loop.scheduleTimer(10, [&] { fired.emplace_back(2, clock->now()); });
  loop.scheduleTimer(-5, [&] { fired.emplace_back(3, clock->now()); });
  loop.dispatchAsync([&] { loop.scheduleTimer(30, [&] { fired.emplace_back(4, clock->now()); }); });
  cancelled->invalidate();
  EXPECT_EQ(loop.pendingTimerCount(), 2u);

  loop.advance(100);
  ASSERT_EQ(fired.size(), 3u);
  EXPECT_EQ(fired[0], std::make_pair(3, 1000.0));
  EXPECT_EQ(fired[1], std::make_pair(4, 1030.0));
  EXPECT_EQ(fired[2], std::make_pair(1, 1060.0));
  EXPECT_EQ(clock->now(), 1100.0);
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

}  // namespace qs::fake

#include "manager/QSReachability.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "FakePlatform.h"
#include "ReachabilityStress.h"
#include "quarrystone/Constants.h"

namespace qs {
namespace {

TEST(QSReachabilityTest, ClassifiesFlagsAndLogsThemAsLetters) {
  fake::FakePlatform fake;
  auto monitor = QSReachability::reachabilityForInternetConnection(fake.platform());
  ASSERT_NE(monitor, nullptr);
  constexpr std::uint32_t R = kReachabilityFlagsReachable, c = kReachabilityFlagsConnectionRequired,
                          C = kReachabilityFlagsConnectionOnTraffic,
                          i = kReachabilityFlagsInterventionRequired, W = kReachabilityFlagsIsWWAN,
                          d = kReachabilityFlagsIsDirect, t = kReachabilityFlagsTransientConnection,
                          D = kReachabilityFlagsConnectionOnDemand,
                          l = kReachabilityFlagsIsLocalAddress;
  EXPECT_EQ(monitor->networkStatusForFlags(0), QSNetworkStatusNotReachable);
  EXPECT_EQ(monitor->networkStatusForFlags(R), QSNetworkStatusViaWiFi);
  EXPECT_EQ(monitor->networkStatusForFlags(R | c), QSNetworkStatusNotReachable);
  EXPECT_EQ(monitor->networkStatusForFlags(R | c | C), QSNetworkStatusViaWiFi);
  EXPECT_EQ(monitor->networkStatusForFlags(R | c | C | i), QSNetworkStatusNotReachable);
  EXPECT_EQ(monitor->networkStatusForFlags(R | W | c), QSNetworkStatusViaWWAN);

  // Every flag has its own letter in its own place; the blank separates
  // the first two from the rest.
  const std::string all = "WR tcCiDld";
  const std::uint32_t bits[] = {W, R, 0, t, c, C, i, D, l, d};
  std::uint32_t every = 0;
  for (std::size_t place = 0; place < all.size(); ++place) {
    if (bits[place] == 0) continue;
    fake.log->clear();
    monitor->networkStatusForFlags(bits[place]);
    std::string letters = "-- -------";
    letters[place] = all[place];
    EXPECT_EQ(fake.log->lines().at(0),
              "Reachability Flag Status: " + letters + " networkStatusForFlags");
    every |= bits[place];
  }
  fake.log->clear();
  monitor->networkStatusForFlags(every);
  EXPECT_EQ(fake.log->lines().at(0), "Reachability Flag Status: " + all + " networkStatusForFlags");
}

TEST(QSReachabilityTest, PostsChangesOnlyWhileScheduledAndToleratesPlatformFailures) {
  fake::FakePlatform fake;
  int posted = 0;
  const void* object = nullptr;
  fake.notifications->addObserver(kQSReachabilityChangedNotification, [&](const Notification& n) {
    ++posted;
    object = n.object;
  });
  auto monitor = QSReachability::reachabilityWithHostName(fake.platform(), "example.test");
  ASSERT_TRUE(monitor->startNotifier());
  fake.reachability->setFlags(0);
  EXPECT_EQ(posted, 1);
  EXPECT_EQ(object, monitor.get());
  monitor->stopNotifier();
  fake.reachability->setFlags(kReachabilityFlagsReachable);
  EXPECT_EQ(posted, 1);

  // Unreadable flags: not reachable, nothing logged.
  fake.reachability->setFlagsReadable(false);
  fake.log->clear();
  EXPECT_EQ(monitor->currentReachabilityStatus(), QSNetworkStatusNotReachable);
  EXPECT_FALSE(monitor->connectionRequired());
  EXPECT_TRUE(fake.log->lines().empty());

  fake.reachability->setCanSetCallback(false);
  EXPECT_FALSE(monitor->startNotifier());
  fake.reachability->setCanCreateTargets(false);
  EXPECT_EQ(QSReachability::reachabilityForInternetConnection(fake.platform()), nullptr);
}

// Change callbacks are delivered on the platform's thread while monitors come
// and go on others (every activity makes a short-lived one). A monitor that
// is stopped or destroyed must never be called again.
TEST(QSReachabilityTest, NoCallbackReachesAMonitorOnceItIsGone) {
  fake::FakePlatform fake;
  auto first = QSReachability::reachabilityForInternetConnection(fake.platform());
  auto second = QSReachability::reachabilityForInternetConnection(fake.platform());
  ASSERT_TRUE(first->startNotifier() && second->startNotifier());
  const void* firstObject = first.get();

  // While the first monitor's change is being delivered, another thread
  // destroys the second monitor, whose change is still to come.
  std::vector<const void*> objects;
  fake.notifications->addObserver(kQSReachabilityChangedNotification, [&](const Notification& n) {
    objects.push_back(n.object);
    if (n.object == firstObject) std::thread([&] { second.reset(); }).join();
  });
  fake.reachability->setFlags(0);
  EXPECT_EQ(objects, std::vector<const void*>{firstObject});
  EXPECT_EQ(fake.reachability->scheduledTargetCount(), 1u);

  // An observer may destroy the monitor whose change it is handling.
  objects.clear();
  fake.notifications->addObserver(kQSReachabilityChangedNotification,
                                  [&](const Notification&) { first.reset(); });
  fake.reachability->setFlags(kReachabilityFlagsReachable);
  EXPECT_EQ(first, nullptr);
  fake.reachability->setFlags(0);
  EXPECT_EQ(objects, std::vector<const void*>{firstObject});
  EXPECT_EQ(fake.reachability->scheduledTargetCount(), 0u);
}

// Changes are fired on a thread of their own, as setFlags() delivers them on
// the calling thread.
TEST(QSReachabilityTest, MonitorsComeAndGoWhileChangesAreDelivered) {
  fake::FakePlatform fake;
  testing::stressReachabilityMonitors(
      fake.platform(),
      [&](bool up) {
        fake.reachability->setFlags(up ? std::uint32_t{kReachabilityFlagsReachable} : 0u);
      },
      /*threads=*/4, /*iterations=*/500);
  EXPECT_EQ(fake.reachability->scheduledTargetCount(), 0u);
}

}  // namespace
}  // namespace qs

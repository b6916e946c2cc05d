#include "GioReachability.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "GlibContext.h"
#include "ReachabilityStress.h"
#include "platform/fake/FakePlatform.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t R = kReachabilityFlagsReachable, C = kReachabilityFlagsConnectionRequired,
                        I = kReachabilityFlagsInterventionRequired, W = kReachabilityFlagsIsWWAN,
                        L = kReachabilityFlagsIsLocalAddress, D = kReachabilityFlagsIsDirect;

TEST(GioReachability, MonitorStateMapsOntoFlags) {
  using K = ReachabilityTargetKind;
  const NetworkState down{false, G_NETWORK_CONNECTIVITY_LOCAL, false};
  const NetworkState full{true, G_NETWORK_CONNECTIVITY_FULL, false};
  const NetworkState limited{true, G_NETWORK_CONNECTIVITY_LIMITED, false};
  const NetworkState portal{true, G_NETWORK_CONNECTIVITY_PORTAL, false};
  const NetworkState metered{true, G_NETWORK_CONNECTIVITY_FULL, true};
  struct Row {
    NetworkState state;
    K kind;
    bool route;
    std::uint32_t flags;
  } rows[] = {
      {down, K::Internet, false, 0},
      {full, K::Internet, false, R},
      {limited, K::Internet, false, R | C},
      {portal, K::HostName, false, R | C | I},
      {metered, K::HostName, false, R | W},
      {{false, G_NETWORK_CONNECTIVITY_FULL, true}, K::Internet, true, 0},
      {down, K::Loopback, true, R | L | D},
      {full, K::Loopback, false, 0},
      {down, K::LinkLocal, true, R | D},
      {metered, K::LinkLocal, true, R | D},
      {down, K::Address, true, R},
      {metered, K::Address, true, R | W},
      {portal, K::Address, true, R},
      {full, K::Address, false, 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(reachabilityFlagsFor(row.state, row.kind, row.route), row.flags)
        << "kind " << static_cast<int>(row.kind) << " available " << row.state.available
        << " connectivity " << row.state.connectivity << " route " << row.route;
  }

  EXPECT_EQ(classifyReachabilityTarget("0.0.0.0", true), K::Internet);
  EXPECT_EQ(classifyReachabilityTarget("127.0.0.2", true), K::Loopback);
  EXPECT_EQ(classifyReachabilityTarget("169.254.1.1", true), K::LinkLocal);
  EXPECT_EQ(classifyReachabilityTarget("192.0.2.7", true), K::Address);
  EXPECT_EQ(classifyReachabilityTarget("LocalHost", false), K::Loopback);
  EXPECT_EQ(classifyReachabilityTarget("collector.example.net", false), K::HostName);
  EXPECT_FALSE(classifyReachabilityTarget("collector.example.net", true));
  EXPECT_FALSE(classifyReachabilityTarget("", false));
}

TEST(GioReachability, RealMonitorFlagsAgreeWithGio) {
  auto reachability = makeGioReachability(makeGlibMainLoop(nullptr));
  EXPECT_FALSE(reachability->targetForAddress("not an address"));
  auto internet = reachability->targetForAddress("0.0.0.0");
  auto host = reachability->targetForHostName("collector.example.net");
  auto loopback = reachability->targetForAddress("127.0.0.1");
  ASSERT_TRUE(internet && host && loopback);
  auto flags = internet->flags();
  ASSERT_TRUE(flags);
  bool available = g_network_monitor_get_network_available(g_network_monitor_get_default());
  EXPECT_EQ((*flags & R) != 0, available);
  EXPECT_EQ(host->flags(), flags);
  EXPECT_EQ(loopback->flags(), R | L | D);
  EXPECT_TRUE(internet->setCallback([](std::uint32_t) {}));
  EXPECT_TRUE(internet->schedule());
}

// Brings the loopback interface up or down; with it up, adds or removes a
// route for everything through it. Enough for the watcher to see a default
// route come and go, and nothing leaves the host.
bool setLoopback(bool up, std::optional<bool> defaultRoute) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq link{};
  std::strncpy(link.ifr_name, "lo", IFNAMSIZ - 1);
  bool ok = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &link) == 0;
  link.ifr_flags = static_cast<short>(up ? link.ifr_flags | IFF_UP : link.ifr_flags & ~IFF_UP);
  ok = ok && ioctl(fd, SIOCSIFFLAGS, &link) == 0;
  if (defaultRoute) {
    rtentry route{};
    char device[] = "lo";
    for (sockaddr* address : {&route.rt_dst, &route.rt_genmask}) {
      sockaddr_in any{};
      any.sin_family = AF_INET;
      std::memcpy(address, &any, sizeof any);
    }
    route.rt_flags = RTF_UP;
    route.rt_dev = device;
    ok = ok && ioctl(fd, *defaultRoute ? SIOCADDRT : SIOCDELRT, &route) == 0;
  }
  if (fd >= 0) close(fd);
  return ok;
}

// Runs in a private network namespace (see the test below). A route added
// where there was none reaches the callback on the main loop; the link going
// down takes it away, though the kernel sends no route notice of its own then.
// Then monitors come and go on several threads while route changes arrive.
void routeChangesInAPrivateNetwork() {
  // Without IPv6 the link going down brings no address or route notice at
  // all, only the link's own, so the watcher must listen to links too.
  for (const char* knob : {"all", "default", "lo"}) {
    std::ofstream(fmt::format("/proc/sys/net/ipv6/conf/{}/disable_ipv6", knob)) << "1\n";
  }
  {
    std::mutex mutex;
    std::condition_variable cv;
    std::optional<std::uint32_t> reported;  // guarded by mutex
    bool onMainLoop = false;                // guarded by mutex
    auto loop = makeGlibMainLoop(nullptr);
    auto reachability = makeGioReachability(loop);
    auto internet = reachability->targetForAddress("0.0.0.0");
    ASSERT_TRUE(internet);
    ASSERT_EQ(internet->flags(), 0u);
    ASSERT_TRUE(internet->setCallback([&](std::uint32_t flags) {
      std::lock_guard lock(mutex);
      if (reported) return;
      reported = flags;
      onMainLoop = loop->isMainThread();
      cv.notify_all();
    }));
    ASSERT_TRUE(internet->schedule());
    for (bool up : {true, false}) {
      ASSERT_TRUE(setLoopback(up, up ? std::optional(true) : std::nullopt)) << std::strerror(errno);
      std::unique_lock lock(mutex);
      ASSERT_TRUE(cv.wait_for(lock, 20s, [&] { return reported.has_value(); })) << up;
      EXPECT_EQ(up ? *reported & R : *reported, up ? R : 0u);
      EXPECT_TRUE(onMainLoop);
      EXPECT_EQ(internet->flags(), reported);
      reported.reset();
    }
  }

  // A change is taken in once a target reads it.
  ASSERT_TRUE(setLoopback(true, std::nullopt));
  auto mainLoop = makeGlibMainLoop(nullptr);
  auto network = makeGlibMainLoop(nullptr);
  fake::FakePlatform fake;
  Platform platform = fake.platform();
  platform.mainLoop = mainLoop;
  platform.reachability = makeGioReachability(mainLoop, network);
  auto probe = platform.reachability->targetForAddress("0.0.0.0");
  ASSERT_TRUE(probe);
  auto fire = [&](bool up) {
    ASSERT_TRUE(setLoopback(true, up)) << std::strerror(errno);
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (((probe->flags().value_or(0) & R) != 0) != up) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the change never arrived";
      std::this_thread::yield();
    }
  };
  fire(true);  // the stress starts from a route that is there and flips it
  testing::stressReachabilityMonitors(platform, fire, /*threads=*/4, /*iterations=*/200);
}

// The check changes routes, so it runs as a fresh copy of this test binary
// inside a network namespace of its own, which vanishes with it.
TEST(GioReachability, RouteChangesInAPrivateNetwork) {
  if (std::getenv("QS_TEST_IN_PRIVATE_NETNS") != nullptr) {
    routeChangesInAPrivateNetwork();
    return;
  }
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a network namespace";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0) _exit(77);
    setenv("QS_TEST_IN_PRIVATE_NETNS", "1", 1);
    execl("/proc/self/exe", "/proc/self/exe",
          "--gtest_filter=GioReachability.RouteChangesInAPrivateNetwork", nullptr);
    _exit(78);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    GTEST_SKIP() << "network namespaces are not available here";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the check failed inside the namespace (output above)";
}

}  // namespace
}  // namespace qs

#include "GioReachability.h"

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
#include <initializer_list>
#include <mutex>
#include <string>
#include <utility>

#include "GlibContext.h"
#include "ReachabilityStress.h"
#include "platform/fake/FakePlatform.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

// A network monitor whose state the test sets, so that changes come as fast
// as the test fires them and no route of the machine is touched. Each
// instance is remembered; they are never freed while the test runs.
struct TestMonitor {
  GObject parent;
  gboolean available;  // network loop only
};
struct TestMonitorClass {
  GObjectClass parentClass;
};
enum { kPropAvailable = 1, kPropMetered, kPropConnectivity };

std::mutex testMonitorsMutex;
std::vector<TestMonitor*> testMonitors;  // guarded by testMonitorsMutex

void getTestMonitorProperty(GObject* instance, guint id, GValue* value, GParamSpec*) {
  gboolean available = reinterpret_cast<TestMonitor*>(instance)->available;
  if (id == kPropAvailable) g_value_set_boolean(value, available);
  if (id == kPropMetered) g_value_set_boolean(value, FALSE);
  if (id == kPropConnectivity) {
    g_value_set_enum(value, available ? G_NETWORK_CONNECTIVITY_FULL : G_NETWORK_CONNECTIVITY_LOCAL);
  }
}

GType testMonitorType() {
  static const GType type = [] {
    GType made = g_type_register_static_simple(
        G_TYPE_OBJECT, "QsTestNetworkMonitor", sizeof(TestMonitorClass),
        [](gpointer klass, gpointer) {
          auto* object = static_cast<GObjectClass*>(klass);
          object->get_property = &getTestMonitorProperty;
          g_object_class_override_property(object, kPropAvailable, "network-available");
          g_object_class_override_property(object, kPropMetered, "network-metered");
          g_object_class_override_property(object, kPropConnectivity, "connectivity");
        },
        sizeof(TestMonitor),
        [](GTypeInstance* instance, gpointer) {
          auto* self = reinterpret_cast<TestMonitor*>(instance);
          self->available = FALSE;
          std::lock_guard lock(testMonitorsMutex);
          testMonitors.push_back(self);
        },
        static_cast<GTypeFlags>(0));
    const GInterfaceInfo initable{
        [](gpointer iface, gpointer) {
          static_cast<GInitableIface*>(iface)->init = [](GInitable*, GCancellable*,
                                                         GError**) -> gboolean { return TRUE; };
        },
        nullptr, nullptr};
    g_type_add_interface_static(made, G_TYPE_INITABLE, &initable);
    const GInterfaceInfo monitor{[](gpointer, gpointer) {}, nullptr, nullptr};
    g_type_add_interface_static(made, G_TYPE_NETWORK_MONITOR, &monitor);
    return made;
  }();
  return type;
}

constexpr std::uint32_t R = kReachabilityFlagsReachable, C = kReachabilityFlagsConnectionRequired,
                        I = kReachabilityFlagsInterventionRequired, W = kReachabilityFlagsIsWWAN,
                        L = kReachabilityFlagsIsLocalAddress, D = kReachabilityFlagsIsDirect;

// Runs one test of this binary again as a fresh process with `env` set
// (in a network namespace of its own when asked) and returns its exit
// status: 77 when the namespace cannot be made, 78 when the binary cannot
// be run, -1 when the process did not exit normally.
int rerunThisTest(const char* filter,
                  std::initializer_list<std::pair<const char*, const char*>> env,
                  bool privateNetwork = false) {
  const std::string filterArg = std::string("--gtest_filter=") + filter;
  pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    if (privateNetwork && unshare(CLONE_NEWNET) != 0) _exit(77);
    for (const auto& [name, value] : env) setenv(name, value, 1);
    execl("/proc/self/exe", "/proc/self/exe", filterArg.c_str(), nullptr);
    _exit(78);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

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

// Brings the loopback interface up and routes everything through it: enough
// for the monitor to see a default route appear, and nothing leaves the host.
bool addDefaultRouteViaLoopback() {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq link{};
  std::strncpy(link.ifr_name, "lo", IFNAMSIZ - 1);
  bool ok = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &link) == 0;
  link.ifr_flags = static_cast<short>(link.ifr_flags | IFF_UP);
  ok = ok && ioctl(fd, SIOCSIFFLAGS, &link) == 0;
  rtentry route{};
  char device[] = "lo";
  for (sockaddr* address : {&route.rt_dst, &route.rt_genmask}) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    std::memcpy(address, &any, sizeof any);
  }
  route.rt_flags = RTF_UP;
  route.rt_dev = device;
  ok = ok && ioctl(fd, SIOCADDRT, &route) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

// Runs in a private network namespace (see the test below): starts with no
// route at all, adds one, and expects the change through the main loop.
void routeChangeArrivesThroughTheMainLoop() {
  auto loop = makeGlibMainLoop(nullptr);
  auto reachability = makeGioReachability(loop);
  auto internet = reachability->targetForAddress("0.0.0.0");
  ASSERT_TRUE(internet);
  ASSERT_EQ(internet->flags(), 0u);

  std::mutex mutex;
  std::condition_variable cv;
  std::optional<std::uint32_t> reported;
  bool onMainLoop = false;
  ASSERT_TRUE(internet->setCallback([&](std::uint32_t flags) {
    std::lock_guard lock(mutex);
    if (reported) return;
    reported = flags;
    onMainLoop = loop->isMainThread();
    cv.notify_all();
  }));
  ASSERT_TRUE(internet->schedule());
  ASSERT_TRUE(addDefaultRouteViaLoopback()) << std::strerror(errno);

  std::unique_lock lock(mutex);
  ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return reported.has_value(); }));
  EXPECT_EQ(*reported & R, R);
  EXPECT_TRUE(onMainLoop);
  EXPECT_EQ(internet->flags(), reported);
}

TEST(GioReachability, RouteChangeArrivesThroughTheMainLoop) {
  if (std::getenv("QS_TEST_IN_PRIVATE_NETNS") != nullptr) {
    routeChangeArrivesThroughTheMainLoop();
    return;
  }
  // The check changes routes, so it runs as a fresh copy of this test binary
  // inside a network namespace of its own, which vanishes with it.
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a network namespace";
  const int status = rerunThisTest("GioReachability.RouteChangeArrivesThroughTheMainLoop",
                                   {{"QS_TEST_IN_PRIVATE_NETNS", "1"}}, /*privateNetwork=*/true);
  if (status == 77) GTEST_SKIP() << "network namespaces are not available here";
  EXPECT_EQ(status, 0) << "the check failed inside the namespace (output above)";
}

// Runs in a fresh process in which the test monitor is GIO's choice (see the
// test below). Changes are fired as the monitor would: its state changes and
// it emits "network-changed", on the network loop, where the adapter's
// private monitor lives.
void monitorsComeAndGoWhileChangesAreDelivered() {
  g_io_extension_point_register(G_NETWORK_MONITOR_EXTENSION_POINT_NAME);
  g_io_extension_point_implement(G_NETWORK_MONITOR_EXTENSION_POINT_NAME, testMonitorType(),
                                 "qs-test", 1000);
  GNetworkMonitor* chosen = g_network_monitor_get_default();
  ASSERT_EQ(reinterpret_cast<GTypeInstance*>(chosen)->g_class->g_type, testMonitorType());

  auto mainLoop = makeGlibMainLoop(nullptr);
  auto network = makeGlibMainLoop(nullptr);
  fake::FakePlatform fake;
  Platform platform = fake.platform();
  platform.mainLoop = mainLoop;
  platform.reachability = makeGioReachability(mainLoop, network);
  ASSERT_TRUE(platform.reachability->targetForAddress("0.0.0.0"));  // starts the monitor
  TestMonitor* monitor = nullptr;
  {
    std::lock_guard lock(testMonitorsMutex);
    ASSERT_EQ(testMonitors.size(), 2u) << "the default and the adapter's own";
    monitor = testMonitors.back();
  }
  auto fire = [&](bool up) {
    ASSERT_TRUE(runOnLoopAndWait(*network, [&] {
      monitor->available = up;
      g_signal_emit_by_name(monitor, "network-changed", up);
    }));
  };
  testing::stressReachabilityMonitors(platform, fire, /*threads=*/4, /*iterations=*/200);
}

TEST(GioReachability, MonitorsComeAndGoWhileChangesAreDelivered) {
  if (std::getenv("QS_TEST_GIO_TEST_MONITOR") != nullptr) {
    monitorsComeAndGoWhileChangesAreDelivered();
    return;
  }
  // GIO picks its monitor once per process: the check runs as a fresh copy
  // of this test binary that installs the test monitor before anything asks.
  const int status =
      rerunThisTest("GioReachability.MonitorsComeAndGoWhileChangesAreDelivered",
                    {{"QS_TEST_GIO_TEST_MONITOR", "1"}, {"GIO_USE_NETWORK_MONITOR", "qs-test"}});
  EXPECT_EQ(status, 0) << "the check failed in the child (output above)";
}

}  // namespace
}  // namespace qs

// Host threads making every public call at once against the sandbox: the
// backlog stays within its bound, descriptors and threads within a fixed
// allowance, and both are given back once the backlog has drained.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CoreFixture.h"
#include "SandboxProcess.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs::testing {
namespace {

constexpr const char* kAppId = "stress-app";
constexpr int kHostThreads = 8;
constexpr int kCallsPerThread = 300;
// Transfers the HTTP client runs at once (each may hold a connection), plus
// the store, the loops' wake-up descriptors and the short-lived probe socket
// of each activity being built.
constexpr long kDescriptorAllowance = 32 + 32;
// The worker pool's most threads, plus a few of the platform's own.
constexpr long kThreadAllowance = 16 + 4;

long entriesOf(const char* dir) {
  long n = 0;
  if (DIR* d = opendir(dir)) {
    while (dirent* entry = readdir(d)) n += entry->d_name[0] == '.' ? 0 : 1;
    closedir(d);
  }
  return n;
}
long openDescriptors() { return entriesOf("/proc/self/fd"); }
long threads() { return entriesOf("/proc/self/task"); }

void raise(std::atomic<long>& peak, long value) {
  long seen = peak.load();
  while (value > seen && !peak.compare_exchange_weak(seen, value)) {
  }
}

class BacklogStress : public ::testing::Test {
 protected:
  void SetUp() override {
    if (envOr("QS_SANDBOX_BIN").empty()) GTEST_SKIP() << "the sandbox is not built";
    sandbox = std::make_unique<SandboxProcess>(dir.path(), std::vector<std::string>{});
    ASSERT_NE(sandbox->port(), 0) << sandbox->output();
    manager = makeSandboxManager(*sandbox, dir.path(), "stress", log);
    manager->setDelegate(delegate);
  }
  void TearDown() override {
    manager.reset();  // before the sandbox goes
    sandbox.reset();
  }
  std::size_t pending() const {
    return QSManagerInternals::networkManager(*manager)->requestsQueue().operationCount();
  }

  // One public call, chosen by `pick`; wake-ups are half of them.
  void call(int pick, int round, ViewController& host) {
    static const auto kBlock = Value::parse(R"({"appId":"stress-app","action":"block",)"
                                            R"("uuid":"u","vid":"v","page":"PGh0bWw+"})");
    QSManager& m = *manager;
    const std::function<void()> calls[] = {
        [&] { m.httpHeaders(); },
        [&] {
          URLRequest request;
          m.setHeadersForRequest(request);
          URLSessionConfiguration configuration;
          m.setHeadersForConfiguration(configuration);
        },
        [&] {
          m.setCustomParameters(Value{{"round", round}});
        },
        [&] { m.setCustomParameters(Value::object()); },
        [&] { m.handleBlockResponse(nullptr, host); },  // a client error report
        [&] { m.handleBlockResponse(m.checkError(Value::object()), host); },
        [&] { m.showBlockResponse(m.checkError(kBlock), host); },
        [&] { m.captchaSuccess(); },
        [&] { m.startWith(kAppId); },
        [&] { round % 2 ? m.forceBlockToken() : m.forceCaptchaToken(); },
        [&] { m.resetDebugSettings(); },
        [&] {
          m.managerWithCustomBlockCode(400 + round % 100);
          m.setForceBlock(m.blockCode() % 2 == 0);
          m.setForceCaptcha(!m.forceBlock());
        },
        [&] {
          m.setDelegate(delegate);
          EXPECT_EQ(m.appId(), kAppId);
          EXPECT_FALSE(m.collectorUrl().empty());
        },
    };
    if (static_cast<std::size_t>(pick) < std::size(calls)) {
      calls[pick]();
    } else {
      m.wakeup();
    }
  }

  TempDir dir;
  std::unique_ptr<SandboxProcess> sandbox;
  std::shared_ptr<fake::FakeLog> log = std::make_shared<fake::FakeLog>();
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QSManager> manager;
};

TEST_F(BacklogStress, EveryPublicCallAtOnceKeepsBacklogDescriptorsAndThreadsBounded) {
  manager->startWith(kAppId);
  ASSERT_TRUE(SandboxProcess::waitUntil([&] { return !delegate->calls().empty(); }, 20));
  ASSERT_TRUE(SandboxProcess::waitUntil([&] { return pending() == 0; }, 20));
  const long baseDescriptors = openDescriptors();
  const long baseThreads = threads();  // before the host threads below

  std::atomic<long> peakPending{0}, peakDescriptors{0}, peakThreads{0};
  std::atomic<bool> calling{true};
  std::thread sampler([&] {
    while (calling.load()) {
      raise(peakPending, static_cast<long>(pending()));
      raise(peakDescriptors, openDescriptors());
      raise(peakThreads, threads());
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  std::vector<std::thread> hosts;
  for (int t = 0; t < kHostThreads; ++t) {
    hosts.emplace_back([&, t] {
      struct Host : ViewController {
      } host;
      std::mt19937 random(static_cast<unsigned>(t));
      std::uniform_int_distribution<int> pick(0, 25);
      for (int round = 0; round < kCallsPerThread; ++round) {
        call(pick(random), round, host);
        raise(peakPending, static_cast<long>(pending()));
      }
    });
  }
  for (auto& host : hosts) host.join();
  calling.store(false);
  sampler.join();

  const long dropped = static_cast<long>(log->count("activity QS315 dropped"));
  std::printf(
      "peak: %ld pending, %ld descriptors (from %ld), %ld threads (from %ld); %ld dropped\n",
      peakPending.load(), peakDescriptors.load(), baseDescriptors, peakThreads.load(), baseThreads,
      dropped);
  EXPECT_LE(peakPending.load(), static_cast<long>(QSNetworkManager::kMaxPendingOperations));
  EXPECT_LE(peakDescriptors.load(), baseDescriptors + kDescriptorAllowance);
  EXPECT_LE(peakThreads.load(), baseThreads + kHostThreads + kThreadAllowance);

  // The backlog drains (answers, or time-outs for what waited too long), and
  // what it held is given back: idle workers end, connections stay few.
  ASSERT_TRUE(SandboxProcess::waitUntil([&] { return pending() == 0; }, 120));
  EXPECT_TRUE(SandboxProcess::waitUntil([&] { return threads() <= baseThreads + 1; }, 15))
      << threads() << " threads, " << baseThreads << " before";
  EXPECT_LE(openDescriptors(), baseDescriptors + 32);

  // And the library still works: a new session earns a token.
  const std::size_t handled = log->count("handleCollectorResponse <--");
  manager->resetDebugSettings();
  manager->startWith(kAppId);
  EXPECT_TRUE(SandboxProcess::waitUntil(
      [&] { return log->count("handleCollectorResponse <--") >= handled + 2; }, 20));
}

}  // namespace
}  // namespace qs::testing

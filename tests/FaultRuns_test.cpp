// The library on the real Linux platform against a sandbox that goes away,
// answers too slowly and answers garbage, switched at run time. The host
// process must survive all of it and end with a token the backend accepts.
// The outage part really waits for the 60-second retry.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "CoreFixture.h"
#include "SandboxProcess.h"
#include "manager/QSManagerInternals.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs::testing {
namespace {

constexpr const char* kAppId = "fault-app";

class FaultRuns : public ::testing::Test {
 protected:
  void SetUp() override {
    if (envOr("QS_SANDBOX_BIN").empty()) GTEST_SKIP() << "the sandbox is not built";
    sandbox = std::make_unique<SandboxProcess>(dir.path(), std::vector<std::string>{});
    ASSERT_NE(sandbox->port(), 0) << sandbox->output();
    manager = makeSandboxManager(*sandbox, dir.path(), "fault", log);
    manager->setDelegate(delegate);
  }
  void TearDown() override {
    manager.reset();  // before the sandbox goes
    sandbox.reset();
  }

  bool waitForLog(const std::string& text, std::size_t count, double seconds) {
    return SandboxProcess::waitUntil([&] { return log->count(text) >= count; }, seconds);
  }
  bool waitForCalls(std::size_t count, double seconds) {
    return SandboxProcess::waitUntil([&] { return delegate->calls().size() >= count; }, seconds);
  }
  std::string token() const { return manager->httpHeaders().at("X-QS-AUTHORIZATION"); }
  long backendStatus() const {
    URLRequest request;
    manager->setHeadersForRequest(request);
    std::vector<std::pair<std::string, std::string>> headers(request.headers.begin(),
                                                             request.headers.end());
    return callHttps("GET", sandbox->url("/api/orders"), headers, "", sandbox->caFile()).status;
  }

  TempDir dir;
  std::unique_ptr<SandboxProcess> sandbox;
  std::shared_ptr<fake::FakeLog> log = std::make_shared<fake::FakeLog>();
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QSManager> manager;
};

TEST_F(FaultRuns, OutageTimeOutAndGarbageEndWithAValidToken) {
  const std::string failed = "CollectorRequest received error: ";
  const std::string retryArmed = "set a new timer, it will send app_init activity in 60 seconds";

  // The collector is down at start: the host is still told it is ready,
  // with the no-token header, and a new session is retried a minute later.
  ASSERT_TRUE(sandbox->setMode("down"));
  manager->startWith(kAppId);
  ASSERT_TRUE(waitForCalls(1, 20)) << ::testing::PrintToString(log->lines());
  EXPECT_EQ(delegate->calls()[0].kind, "managerReady");
  EXPECT_EQ(delegate->calls()[0].headers, (HeaderMap{{"X-QS-AUTHORIZATION", "1"}}));
  EXPECT_EQ(log->count(failed), 1u) << ::testing::PrintToString(log->lines());
  EXPECT_EQ(log->count(retryArmed), 1u) << ::testing::PrintToString(log->lines());
  EXPECT_EQ(backendStatus(), 403);

  ASSERT_TRUE(sandbox->setMode("normal"));
  ASSERT_TRUE(waitForCalls(2, 90)) << ::testing::PrintToString(log->lines());
  EXPECT_EQ(delegate->calls()[1].kind, "newHeaders");
  const std::string first = token();
  EXPECT_EQ(first.rfind("3:", 0), 0u) << first;
  EXPECT_EQ(backendStatus(), 200);

  // Garbage: the HTML body means nothing new; no retry, no call, same token.
  ASSERT_TRUE(sandbox->setMode("garbage"));
  const std::size_t handled = log->count("handleCollectorResponse <--");
  manager->startWith(kAppId);
  ASSERT_TRUE(waitForLog("handleCollectorResponse <--", handled + 1, 20))
      << ::testing::PrintToString(log->lines());
  EXPECT_EQ(log->count(failed), 1u);
  EXPECT_EQ(log->count(retryArmed), 1u);
  EXPECT_EQ(delegate->calls().size(), 2u);
  EXPECT_EQ(token(), first);
  EXPECT_EQ(backendStatus(), 200);

  // Slow: the request times out after 5 s and the new-session retry is armed.
  ASSERT_TRUE(sandbox->setMode("slow"));
  manager->startWith(kAppId);
  ASSERT_TRUE(waitForLog(failed + "The request timed out.", 1, 20))
      << ::testing::PrintToString(log->lines());
  EXPECT_TRUE(waitForLog(retryArmed, 2, 5)) << ::testing::PrintToString(log->lines());
  EXPECT_EQ(delegate->calls().size(), 2u) << "errors after ready are not told to the host";

  // Back to normal, a restart brings a fresh token without waiting for the retry.
  ASSERT_TRUE(sandbox->setMode("normal"));
  manager->startWith(kAppId);
  ASSERT_TRUE(waitForCalls(3, 20)) << ::testing::PrintToString(log->lines());
  EXPECT_NE(token(), first);
  EXPECT_EQ(backendStatus(), 200);

  // The sandbox saw the outage as dropped connections, and no request it
  // could not read.
  const auto events = sandbox->events();
  auto count = [&](const std::string& kind) {
    return std::count_if(events.begin(), events.end(),
                         [&](const Value& e) { return e.value("event", "") == kind; });
  };
  EXPECT_GE(count("dropped"), 1);
  EXPECT_EQ(count("rejected"), 0);
}

// The store commits on a thread of its own, after the answer has moved on.
// A host that reads the store from inside managerReady must still find what
// the answers brought (session, visitor, the cookie its headers carry), and
// the file must hold the same once the store has synchronised.
TEST_F(FaultRuns, ReadyFindsTheAnswersInTheStore) {
  struct StoreReader final : QSManagerDelegate {
    void managerReady(const HeaderMap& headers) override {
      std::lock_guard lock(mutex);
      for (const char* key : {"QS_COLLECTOR_RESPONSE_SID", "QS_COLLECTOR_RESPONSE_VID",
                              "QS_COLLECTOR_RESPONSE_COOKIE"}) {
        seen[key] = store->objectForKey(key);
      }
      authorization = headers.at("X-QS-AUTHORIZATION");
      ready = true;
    }
    void newHeaders(const HeaderMap&) override {}
    bool isReady() {
      std::lock_guard lock(mutex);
      return ready;
    }
    std::shared_ptr<KeyValueStore> store;
    std::mutex mutex;
    std::map<std::string, std::optional<Value>> seen;  // guarded by mutex
    std::string authorization;                         // guarded by mutex
    bool ready = false;                                // guarded by mutex
  };
  auto reader = std::make_shared<StoreReader>();
  reader->store = QSManagerInternals::platform(*manager).store;
  manager->setDelegate(reader);
  manager->startWith(kAppId);
  ASSERT_TRUE(SandboxProcess::waitUntil([&] { return reader->isReady(); }, 20))
      << ::testing::PrintToString(log->lines());

  // Also read by the measurements from the service's log: a "+" in a report
  // stays a plus, and each collector request names the client end of its
  // connection (qs-measure counts connections by it).
  manager->reportError("a+b & c=d");
  EXPECT_TRUE(sandbox->waitForEvents(
      [](const Value& e) { return e.contains("report") && e["report"]["message"] == "a+b & c=d"; },
      1, 10));
  for (const auto& e : sandbox->events()) {
    if (e.value("event", "") == "activity") {
      EXPECT_EQ(e.value("peer", "").rfind("127.0.0.1:", 0), 0u) << e.dump();
    }
  }

  std::lock_guard lock(reader->mutex);
  EXPECT_EQ(reader->authorization.rfind("3:", 0), 0u) << reader->authorization;
  ASSERT_TRUE(reader->store->synchronize());
  auto file = openSqliteStore((dir.path() / "store.sqlite").string(), makeStderrLog());
  for (const auto& [key, value] : reader->seen) {
    ASSERT_TRUE(value.has_value()) << key;
    EXPECT_EQ(file->objectForKey(key), value) << key;
  }
}

}  // namespace
}  // namespace qs::testing

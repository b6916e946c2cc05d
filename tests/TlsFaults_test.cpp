// A collector that cannot be trusted or talked to (expired, wrong-host or
// unknown-authority certificate, TLS 1.0 only, closed mid-handshake): each
// start is a failed exchange the host sees as ready with the no-token header,
// the retry armed, no token taken and no request sent.
#include <gtest/gtest.h>

#include <string>

#include "CoreFixture.h"
#include "SandboxProcess.h"
#include "TlsFaultServer.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs::testing {
namespace {

using Fault = TlsFaultServer::Fault;

constexpr const char* kSslFailure =
    "CollectorRequest received error: An SSL error has occurred and a secure connection to the "
    "server cannot be made.";
constexpr const char* kRetryArmed = "set a new timer, it will send app_init activity in 60 seconds";

struct Start {
  std::vector<RecordingDelegate::Call> calls;
  HeaderMap headersAfter;
  std::shared_ptr<fake::FakeLog> log = std::make_shared<fake::FakeLog>();
};

// Starts a manager whose collector is `server` and waits, bounded, until the
// first exchange has ended and the host has been told.
Start startAgainst(const TlsFaultServer& server, const std::filesystem::path& dir) {
  DeploymentSettings settings;
  settings.collectorHostPattern = "{appId}.collector.localhost:" + std::to_string(server.port());
  settings.webDomain = "localhost:" + std::to_string(server.port());
  settings.caFile = server.caFile();
  settings.storePath = (dir / "store.sqlite").string();
  Start start;
  LinuxPlatformOptions options;
  options.bundle = {"1.0", "tls-faults", "com.example.tls-faults", {"en"}};
  options.log = start.log;
  options.logLevel = LogLevel::Debug;
  auto delegate = std::make_shared<RecordingDelegate>();
  auto manager = QSManager::create(makeLinuxPlatform(settings, options), settings);
  manager->setDelegate(delegate);
  manager->startWith("tls-app");
  const std::string failed = "CollectorRequest received error: ";
  SandboxProcess::waitUntil(
      [&] {
        return start.log->contains("handleCollectorResponse <--") ||
               (start.log->contains(failed) && !delegate->calls().empty());
      },
      20);
  // The retry timer is armed on the completion's thread after the call.
  if (start.log->contains(failed)) {
    SandboxProcess::waitUntil([&] { return start.log->contains(kRetryArmed); }, 5);
  }
  start.calls = delegate->calls();
  start.headersAfter = manager->httpHeaders();
  return start;
}

TEST(TlsFaults, EachFaultIsAFailedExchangeAndNoTokenIsTaken) {
  TempDir dir;
  {
    // The control: a trusted server is reached, and what it answers (not a
    // collector answer) is handled without any TLS error.
    TlsFaultServer good(Fault::Good, dir.path());
    Start start = startAgainst(good, dir.path());
    EXPECT_GE(good.handshakes(), 1) << ::testing::PrintToString(start.log->lines());
    EXPECT_TRUE(start.log->contains("handleCollectorResponse <--"))
        << ::testing::PrintToString(start.log->lines());
    EXPECT_FALSE(start.log->contains(kSslFailure)) << ::testing::PrintToString(start.log->lines());
  }
  for (Fault fault : {Fault::Expired, Fault::WrongHost, Fault::UnknownAuthority, Fault::Tls10Only,
                      Fault::CloseInHandshake}) {
    SCOPED_TRACE(static_cast<int>(fault));
    TempDir storeDir;
    TlsFaultServer server(fault, dir.path());
    Start start = startAgainst(server, storeDir.path());
    ASSERT_EQ(start.calls.size(), 1u) << ::testing::PrintToString(start.log->lines());
    EXPECT_EQ(start.calls[0].kind, "managerReady");
    EXPECT_EQ(start.calls[0].headers, (HeaderMap{{"X-QS-AUTHORIZATION", "1"}}));
    EXPECT_EQ(start.headersAfter, (HeaderMap{{"X-QS-AUTHORIZATION", "1"}}));
    EXPECT_EQ(start.log->count(kSslFailure), 1u) << ::testing::PrintToString(start.log->lines());
    EXPECT_EQ(start.log->count(kRetryArmed), 1u) << ::testing::PrintToString(start.log->lines());
    EXPECT_GE(server.connections(), 1);
    EXPECT_EQ(server.requests(), 0);
  }
}

}  // namespace
}  // namespace qs::testing

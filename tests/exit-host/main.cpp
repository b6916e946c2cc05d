// A host that leaves main (by returning or by exit()) while the library,
// started on its own loop thread against the sandbox, is busy: without
// stopping anything, as a real application does when the user quits.
//
// Usage: qs-exit-host --at start|challenge|answer|ready --how return|exit
//                     [--bundle-id ID] [--sandbox-log PATH]
//   start      right after startWith()
//   challenge  as soon as the library says it handles the challenge, while
//              its loop thread works out and sends the answer
//   answer     the sandbox is first switched to slow answers, so that the
//              challenge answer is still in flight when the host leaves (the
//              sandbox's event log, --sandbox-log, shows when it arrived)
//   ready      once the host was told the headers
// The service is found through the deployment settings' environment
// variables. Exits 0 when the moment came, 3 when it did not within 20 s.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "SandboxProcess.h"
#include "quarrystone/Quarrystone.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(20);

// What the host waits for. Shared with the library's threads, which may
// still use it after main has left: owned by the log the library keeps.
struct Moment {
  std::mutex mutex;
  std::condition_variable changed;
  bool challenge = false;
  bool ready = false;
};

// Switches the sandbox to answers that come later than the client waits.
bool makeSandboxSlow(const qs::DeploymentSettings& settings) {
  const std::string url = "https://" + settings.webDomain + "/sandbox/mode";
  return qs::testing::callHttps("POST", url, {}, "slow", settings.caFile).status == 200;
}

// Prints every line and notes the challenge. With `slowAnswer`, the sandbox
// is made slow right there, on the library's thread, before the answer goes.
class WatchingLog final : public qs::Log {
 public:
  WatchingLog(std::shared_ptr<Moment> moment, qs::DeploymentSettings settings, bool slowAnswer)
      : moment_(std::move(moment)), settings_(std::move(settings)), slowAnswer_(slowAnswer) {}

  using qs::Log::write;
  void write(qs::LogLevel, std::string_view line) override {
    std::fprintf(stderr, "qs: %.*s\n", static_cast<int>(line.size()), line.data());
    if (line != "handleCollectorResponse --> handleChallenge") return;
    if (slowAnswer_ && !makeSandboxSlow(settings_))
      std::fprintf(stderr, "cannot slow the sandbox\n");
    std::lock_guard lock(moment_->mutex);
    moment_->challenge = true;
    moment_->changed.notify_all();
  }

 private:
  std::shared_ptr<Moment> moment_;
  const qs::DeploymentSettings settings_;
  const bool slowAnswer_;
};

class Delegate final : public qs::QSManagerDelegate {
 public:
  explicit Delegate(std::shared_ptr<Moment> moment) : moment_(std::move(moment)) {}
  void managerReady(const qs::HeaderMap&) override { tell(); }
  void newHeaders(const qs::HeaderMap&) override { tell(); }

 private:
  void tell() {
    std::lock_guard lock(moment_->mutex);
    moment_->ready = true;
    moment_->changed.notify_all();
  }
  std::shared_ptr<Moment> moment_;
};

// True once the sandbox logged a challenge answer.
bool answerArrived(const std::string& sandboxLog) {
  const std::string answer = std::string("\"type\":\"") + qs::QSFM_APP_CHALLENGE + "\"";
  return qs::testing::readFile(sandboxLog).find(answer) != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  std::string at, how, bundleId, sandboxLog;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--at") at = argv[i + 1];
    if (option == "--how") how = argv[i + 1];
    if (option == "--bundle-id") bundleId = argv[i + 1];
    if (option == "--sandbox-log") sandboxLog = argv[i + 1];
  }
  const bool knownMoment = at == "start" || at == "challenge" || at == "ready" ||
                           (at == "answer" && !sandboxLog.empty());
  if (!knownMoment || (how != "return" && how != "exit")) {
    std::fprintf(stderr,
                 "usage: qs-exit-host --at start|challenge|answer|ready --how return|exit "
                 "[--bundle-id ID] [--sandbox-log PATH]\n");
    return 2;
  }

  const qs::DeploymentSettings settings = qs::DeploymentSettings::fromEnvironment();
  auto moment = std::make_shared<Moment>();
  qs::LinuxPlatformOptions options;
  options.bundle = {"1.0", "Exit Host", std::nullopt, {"en"}};
  if (!bundleId.empty()) options.bundle.identifier = bundleId;
  options.log = std::make_shared<WatchingLog>(moment, settings, at == "answer");
  options.logLevel = qs::LogLevel::Debug;  // it watches the trace for its moment
  qs::QSManager::installPlatform(qs::makeLinuxPlatform(settings, options), settings);
  auto delegate = std::make_shared<Delegate>(moment);
  qs::QSManager& manager = qs::QSManager::sharedInstance();
  manager.setDelegate(delegate);
  manager.startWith("exit-app");

  bool reached = true;
  const auto deadline = Clock::now() + kPatience;
  if (at == "challenge" || at == "answer" || at == "ready") {
    std::unique_lock lock(moment->mutex);
    reached = moment->changed.wait_until(
        lock, deadline, [&] { return at == "ready" ? moment->ready : moment->challenge; });
  }
  if (reached && at == "answer") {
    while (!(reached = answerArrived(sandboxLog)) && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  std::fprintf(stderr, "exit-host: leaving at %s by %s%s\n", at.c_str(), how.c_str(),
               reached ? "" : " (the moment did not come)");
  if (how == "exit") std::exit(reached ? 0 : 3);
  return reached ? 0 : 3;
}

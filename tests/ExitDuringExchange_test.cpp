// Hosts that quit while the library is busy: the process must end with exit
// code 0 and without a sanitizer report, whatever the library's threads are
// doing while the exit handlers run. The same runs show that each host
// application keeps its own private store.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "SandboxProcess.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs::testing {
namespace {

class ExitDuringExchange : public ::testing::Test {
 protected:
  void SetUp() override {
    if (envOr("QS_SANDBOX_BIN").empty() || envOr("QS_EXIT_HOST_BIN").empty()) {
      GTEST_SKIP() << "the sandbox or the exit host is not built";
    }
    sandbox = std::make_unique<SandboxProcess>(dir.path(), std::vector<std::string>{});
    ASSERT_NE(sandbox->port(), 0) << sandbox->output();
  }

  // Runs the host to `at`, leaving `how`; its exit code, and its output in
  // `output`. The store goes to the default place under `dir/data`.
  int runHost(const std::string& at, const std::string& how, const std::string& bundleId,
              std::string& output) {
    const auto out = dir.path() / ("host-" + at + "-" + how + ".out");
    std::vector<std::string> argv{envOr("QS_EXIT_HOST_BIN"), "--at", at, "--how", how};
    argv.insert(argv.end(), {"--sandbox-log", (dir.path() / "events.jsonl").string()});
    if (!bundleId.empty()) argv.insert(argv.end(), {"--bundle-id", bundleId});
    auto env = sandbox->hostEnvironment(dir.path(), "");
    env.push_back("XDG_DATA_HOME=" + (dir.path() / "data").string());
    ChildProcess host(argv, env, out.string());
    const auto status = host.waitExit(60);
    output = readFile(out);
    return status.value_or(-1);
  }

  static mode_t modeOf(const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
  }

  TempDir dir;
  std::unique_ptr<SandboxProcess> sandbox;
};

TEST_F(ExitDuringExchange, HostLeavesCleanlyAtEveryMoment) {
  struct Run {
    const char* at;
    const char* how;
    const char* bundleId;
  };
  const Run runs[] = {
      {"start", "return", "com.example.one"},
      {"start", "exit", "com.example.one"},
      {"challenge", "return", ""},
      {"challenge", "exit", "com.example.two"},
      {"answer", "exit", "com.example.one"},
      {"answer", "return", "com.example.two"},
      {"ready", "return", "com.example.one"},
      {"ready", "exit", "com.example.two"},
  };
  // Whatever the host's umask, the store stays private.
  struct MaskGuard {
    mode_t old;
    ~MaskGuard() { umask(old); }
  } mask{umask(0)};
  for (const auto& run : runs) {
    SCOPED_TRACE(std::string("at ") + run.at + " by " + run.how);
    ASSERT_TRUE(sandbox->setMode("normal"));
    std::string output;
    EXPECT_EQ(runHost(run.at, run.how, run.bundleId, output), 0) << output;
    for (const char* report : {"ThreadSanitizer", "AddressSanitizer", "LeakSanitizer",
                               "runtime error", "the moment did not come"}) {
      EXPECT_EQ(output.find(report), std::string::npos) << output;
    }
  }

  // Three applications, three stores, each private, each with its own
  // session: a bundle identifier names the folder, else the program does.
  const auto root = dir.path() / "data" / "quarrystone";
  EXPECT_EQ(modeOf(root), 0700u);
  std::vector<std::string> sessions;
  for (const char* app : {"com.example.one", "com.example.two", "qs-exit-host"}) {
    SCOPED_TRACE(app);
    const auto file = root / app / "defaults.sqlite";
    EXPECT_EQ(modeOf(root / app), 0700u);
    EXPECT_EQ(modeOf(file), 0600u);
    auto store = openSqliteStore(file.string(), makeStderrLog());
    auto sid = store->objectForKey("QS_COLLECTOR_RESPONSE_SID");
    ASSERT_TRUE(sid && sid->is_string());
    sessions.push_back(sid->get<std::string>());
  }
  EXPECT_NE(sessions[0], sessions[1]);
  EXPECT_NE(sessions[1], sessions[2]);
  EXPECT_NE(sessions[0], sessions[2]);
}

}  // namespace
}  // namespace qs::testing

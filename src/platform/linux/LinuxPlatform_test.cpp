#include "quarrystone/LinuxPlatform.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>

#include "SandboxProcess.h"
#include "platform/fake/FakePlatform.h"

namespace qs {
namespace {

namespace fs = std::filesystem;

// Two host applications of one user on the default store location: neither
// sees the other's values, however its identifier is spelt, and a host that
// declares no identifier is named after its program.
TEST(LinuxPlatformTest, EachApplicationHasItsOwnPrivateStore) {
  testing::TempDir temp;
  const fs::path& data = temp.path();
  const char* oldXdg = std::getenv("XDG_DATA_HOME");
  const auto savedXdg = oldXdg ? std::optional<std::string>(oldXdg) : std::nullopt;
  setenv("XDG_DATA_HOME", data.c_str(), 1);

  auto platformFor = [](std::optional<std::string> identifier) {
    LinuxPlatformOptions options;
    options.bundle.identifier = std::move(identifier);
    options.log = std::make_shared<fake::FakeLog>();
    return makeLinuxPlatform(DeploymentSettings{}, options);
  };
  {
    auto one = platformFor("com.example.one");
    one.store->setObject("sid", Value("first"));
    auto hostile = platformFor("../quarrystone/com.example.one");
    EXPECT_FALSE(hostile.store->objectForKey("sid"));
    hostile.store->setObject("sid", Value("second"));
    auto unnamed = platformFor(std::nullopt);
    EXPECT_FALSE(unnamed.store->objectForKey("sid"));
    EXPECT_EQ(platformFor("com.example.one").store->objectForKey("sid"), Value("first"));
  }

  const fs::path root = data / "quarrystone";
  std::set<std::string> folders;
  for (const auto& entry : fs::directory_iterator(root)) {
    folders.insert(entry.path().filename());
    struct stat st {};
    ASSERT_EQ(::stat((entry.path() / "defaults.sqlite").c_str(), &st), 0) << entry.path();
    EXPECT_EQ(st.st_mode & 07777, 0600u) << entry.path();
    EXPECT_EQ(fs::status(entry.path()).permissions(), fs::perms::owner_all) << entry.path();
  }
  EXPECT_EQ(folders.size(), 3u);
  EXPECT_TRUE(folders.count("com.example.one"));
  EXPECT_TRUE(folders.count(fs::read_symlink("/proc/self/exe").filename()));

  if (savedXdg) {
    setenv("XDG_DATA_HOME", savedXdg->c_str(), 1);
  } else {
    unsetenv("XDG_DATA_HOME");
  }
}

// The log: by default a host sees only warnings and errors; the level and
// the sink are the host's choice; level names read back as their level.
TEST(LinuxPlatformLog, WritesWarningsAndErrorsUnlessTheHostAsksForMore) {
  ::testing::internal::CaptureStderr();
  auto standard = makeStderrLog();
  standard->write("--> setTimerForTokenRenew");
  standard->write(LogLevel::Info, "an info line");
  standard->write(LogLevel::Warning, "CollectorRequest received error: x");
  standard->write(LogLevel::Error, "QS Error - y");
  makeStderrLog(LogLevel::Debug)->write("a trace line");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Quarrystone: CollectorRequest received error: x\n"
            "Quarrystone: QS Error - y\n"
            "Quarrystone: a trace line\n");

  testing::TempDir dir;
  DeploymentSettings settings;
  settings.storePath = (dir.path() / "store.sqlite").string();
  for (LogLevel level : {LogLevel::Debug, LogLevel::Warning}) {
    auto sink = std::make_shared<fake::FakeLog>();
    LinuxPlatformOptions options;
    options.log = sink;
    if (level == LogLevel::Debug) options.logLevel = level;
    Platform platform = makeLinuxPlatform(settings, options);
    platform.log->write("trace");
    platform.log->write(LogLevel::Error, "error");
    EXPECT_EQ(sink->contains("trace"), level == LogLevel::Debug);
    EXPECT_EQ(sink->levelOf("error"), LogLevel::Error);
  }
  for (LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Warning, LogLevel::Error}) {
    EXPECT_EQ(logLevelFromName(logLevelName(level)), level);
  }
  EXPECT_FALSE(logLevelFromName("verbose"));
  EXPECT_FALSE(logLevelFromName(""));
}

}  // namespace
}  // namespace qs

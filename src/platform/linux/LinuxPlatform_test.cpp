#include "quarrystone/LinuxPlatform.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>

#include "platform/fake/FakePlatform.h"

namespace qs {
namespace {

namespace fs = std::filesystem;

// Two host applications of one user on the default store location: neither
// sees the other's values, however its identifier is spelt, and a host that
// declares no identifier is named after its program.
TEST(LinuxPlatformTest, EachApplicationHasItsOwnPrivateStore) {
  std::string pattern = testing::TempDir() + "qs-platform-XXXXXX";
  const fs::path data = mkdtemp(pattern.data());
  const char* oldXdg = std::getenv("XDG_DATA_HOME");
  const std::string savedXdg = oldXdg != nullptr ? oldXdg : "";
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

  if (oldXdg != nullptr) {
    setenv("XDG_DATA_HOME", savedXdg.c_str(), 1);
  } else {
    unsetenv("XDG_DATA_HOME");
  }
  fs::remove_all(data);
}

// The log: by default a host sees only warnings and errors; the level and
// the sink are the host's choice.
TEST(LinuxPlatformLog, WritesWarningsAndErrorsUnlessTheHostAsksForMore) {
  testing::internal::CaptureStderr();
  auto standard = makeStderrLog();
  standard->write("--> setTimerForTokenRenew");
  standard->write(LogLevel::Info, "an info line");
  standard->write(LogLevel::Warning, "CollectorRequest received error: x");
  standard->write(LogLevel::Error, "QS Error - y");
  makeStderrLog(LogLevel::Debug)->write("a trace line");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Quarrystone: CollectorRequest received error: x\n"
            "Quarrystone: QS Error - y\n"
            "Quarrystone: a trace line\n");

  const auto dir = std::filesystem::temp_directory_path() / "qs-linux-platform-log";
  DeploymentSettings settings;
  settings.storePath = (dir / "store.sqlite").string();
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
  std::filesystem::remove_all(dir);
}

TEST(LinuxPlatformLog, LevelNamesRoundTrip) {
  for (LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Warning, LogLevel::Error}) {
    EXPECT_EQ(logLevelFromName(logLevelName(level)), level);
  }
  EXPECT_FALSE(logLevelFromName("verbose"));
  EXPECT_FALSE(logLevelFromName(""));
}

}  // namespace
}  // namespace qs

// The Linux platform's log: by default a host sees only warnings and errors;
// the level and the sink are the host's choice.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "FakePlatform.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

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

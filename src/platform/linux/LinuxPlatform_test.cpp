#include "quarrystone/LinuxPlatform.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

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

}  // namespace
}  // namespace qs

#include "quarrystone/DeploymentSettings.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>

namespace qs {
namespace {

// Sets (or unsets, with nullopt) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    set(value);
  }
  ~ScopedEnv() { set(old_); }

 private:
  void set(const std::optional<std::string>& v) {
    v ? setenv(name_, v->c_str(), 1) : unsetenv(name_);
  }
  const char* name_;
  std::optional<std::string> old_;
};

TEST(DeploymentSettingsTest, EachApplicationHasItsOwnStoreUnlessAPathIsSet) {
  ScopedEnv xdg("XDG_DATA_HOME", "/data/home/");
  ScopedEnv storeEnv("QS_STORE_PATH", std::nullopt);
  DeploymentSettings settings;
  EXPECT_EQ(settings.resolvedStorePath("com.example.one"),
            "/data/home/quarrystone/com.example.one/defaults.sqlite");
  EXPECT_EQ(settings.resolvedStorePath("other-app"),
            "/data/home/quarrystone/other-app/defaults.sqlite");

  settings.storePath = "/chosen/store.sqlite";
  EXPECT_EQ(settings.resolvedStorePath("com.example.one"), "/chosen/store.sqlite");
  ScopedEnv storeSet("QS_STORE_PATH", "/from/env.sqlite");
  EXPECT_EQ(DeploymentSettings::fromEnvironment().resolvedStorePath("x"), "/from/env.sqlite");
}

TEST(DeploymentSettingsTest, HostileIdentifiersStayOneFolderInsideTheRoot) {
  ScopedEnv xdg("XDG_DATA_HOME", "/d");
  const std::string hostile[] = {"",
                                 ".",
                                 "..",
                                 "../../etc/passwd",
                                 "/abs/olute",
                                 "a/b",
                                 "a_b",
                                 "a\\b",
                                 ".hidden",
                                 "line\nbreak\x01\x7f",
                                 std::string("nul\0inside", 10),
                                 "caf\xc3\xa9 app",
                                 std::string(300, 'x'),
                                 std::string(300, 'x') + "y"};
  std::set<std::string> folders;
  for (const auto& id : hostile) {
    const std::string name = DeploymentSettings::storeFolderName(id);
    SCOPED_TRACE("identifier \"" + id + "\" -> \"" + name + "\"");
    ASSERT_FALSE(name.empty());
    EXPECT_LE(name.size(), 100u);
    EXPECT_NE(name.front(), '.');
    for (char c : name)
      EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_');
    const auto path = DeploymentSettings().resolvedStorePath(id);
    ASSERT_TRUE(path);
    EXPECT_EQ(std::filesystem::path(*path).lexically_normal().parent_path().parent_path(),
              "/d/quarrystone");
    folders.insert(name);
  }
  EXPECT_EQ(folders.size(), std::size(hostile)) << "two identifiers share a folder";
  EXPECT_EQ(DeploymentSettings::storeFolderName("com.example.App-2_b"), "com.example.App-2_b");
}

TEST(DeploymentSettingsTest, WithoutHomeVariablesTheUsersOwnHomeIsUsedNeverASharedFolder) {
  ScopedEnv xdg("XDG_DATA_HOME", std::nullopt);
  ScopedEnv home("HOME", std::nullopt);
  passwd* entry = getpwuid(getuid());
  ASSERT_NE(entry, nullptr);
  const std::string expected =
      std::string(entry->pw_dir) + "/.local/share/quarrystone/app/defaults.sqlite";
  EXPECT_EQ(DeploymentSettings().resolvedStorePath("app"), expected);
  {
    // Relative values are not a location at all.
    ScopedEnv relativeXdg("XDG_DATA_HOME", "relative/data");
    ScopedEnv relativeHome("HOME", "relative");
    EXPECT_EQ(DeploymentSettings().resolvedStorePath("app"), expected);
  }

  // A user that the password database does not know has no location.
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become a user without an entry";
  constexpr uid_t kUnknownUser = 54321;
  ASSERT_EQ(getpwuid(kUnknownUser), nullptr);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setresuid(kUnknownUser, kUnknownUser, kUnknownUser) != 0) _exit(2);
    _exit(DeploymentSettings().resolvedStorePath("app") ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

}  // namespace
}  // namespace qs

// C hosts against the sandbox. The example (examples/c-host) gets a level-3
// token through the C interface, and the custom parameters it sets as JSON
// text reach the collector inside its activities. A GTK host in C
// (tests/c-captcha-host) solves a forced captcha in the real web view, under
// its own headless X server; another (src/c/http/CApiHttp_test.c) sends its
// requests through the libcurl protection's C interface.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "HeadlessToolkit.h"
#include "SandboxProcess.h"
#include "quarrystone/QSFieldsMapping.h"

// The test programs' sanitizer suppressions (tests/support), handed to the
// hosts as files: they run the same uninstrumented GLib and toolkit.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions();

namespace qs::testing {
namespace {

// The environment that points a host at `sandbox`, with the suppressions.
std::vector<std::string> hostEnvironment(const SandboxProcess& sandbox,
                                         const std::filesystem::path& dir) {
  const DeploymentSettings settings = sandbox.settings((dir / "store.sqlite").string());
  const auto tsan = dir / "tsan.supp", lsan = dir / "lsan.supp";
  std::ofstream(tsan) << __tsan_default_suppressions();
  std::ofstream(lsan) << __lsan_default_suppressions();
  return {"QS_COLLECTOR_HOST_PATTERN=" + settings.collectorHostPattern,
          "QS_WEB_DOMAIN=" + settings.webDomain,
          "QS_CA_FILE=" + settings.caFile,
          "QS_STORE_PATH=" + settings.storePath,
          "TSAN_OPTIONS=" + envOr("TSAN_OPTIONS") + " suppressions=" + tsan.string(),
          "LSAN_OPTIONS=" + envOr("LSAN_OPTIONS") + " suppressions=" + lsan.string()};
}

TEST(CHost, ReadyHeadersAndCustomParameters) {
  const std::string host = envOr("QS_C_HOST_BIN");
  if (host.empty() || envOr("QS_SANDBOX_BIN").empty()) {
    GTEST_SKIP() << "the C host or the sandbox is not built";
  }
  TempDir dir;
  SandboxProcess sandbox(dir.path(), {});
  ASSERT_NE(sandbox.port(), 0) << sandbox.output();
  std::vector<std::string> env = hostEnvironment(sandbox, dir.path());
  env.push_back(R"(QS_CUSTOM_PARAMETERS={"plan": "gold", "seats": 3})");
  const auto output = dir.path() / "c-host.out";
  ChildProcess child({host, "c-app", "60"}, env, output.string());
  ASSERT_TRUE(child.started());
  ASSERT_EQ(child.waitExit(90), 0) << readFile(output);
  const std::string printed = readFile(output);
  EXPECT_NE(printed.find("ready with 1 header(s)"), std::string::npos) << printed;
  EXPECT_NE(printed.find("header X-QS-AUTHORIZATION: 3:"), std::string::npos) << printed;

  bool carried = false;
  for (const auto& event : sandbox.events()) {
    // Challenge answers carry no host parameters; every app activity does.
    if (event.value("event", "") != "activity" || !event.contains("d") ||
        event.value("type", "") == QSFM_APP_CHALLENGE) {
      continue;
    }
    const Value& d = event["d"];
    EXPECT_EQ(d.value("plan", ""), "gold") << event.dump();
    EXPECT_EQ(d.value("seats", 0), 3) << event.dump();
    carried = true;
  }
  EXPECT_TRUE(carried) << readFile(dir.path() / "events.jsonl");
}

TEST(CHost, ForcedCaptchaSolvedInAGtkWindow) {
  const std::string host = envOr("QS_C_CAPTCHA_HOST_BIN");
  if (host.empty() || envOr("QS_SANDBOX_BIN").empty()) {
    GTEST_SKIP() << "the GTK component or the sandbox is not built";
  }
  TempDir dir;
  SandboxProcess sandbox(dir.path(), {});
  ASSERT_NE(sandbox.port(), 0) << sandbox.output();
  std::vector<std::string> env = hostEnvironment(sandbox, dir.path());
  for (auto& entry : test::headlessToolkitEnvironment()) env.push_back(std::move(entry));
  const auto output = dir.path() / "c-captcha-host.out";
  ChildProcess child({"xvfb-run", "-a", host, "c-app", "90"}, env, output.string());
  ASSERT_TRUE(child.started());
  ASSERT_EQ(child.waitExit(150), 0) << readFile(output);
  EXPECT_NE(readFile(output).find("captcha solved"), std::string::npos) << readFile(output);

  // The service challenged the forced token, and the solved page brought a
  // new session: a start, the forced captcha token, the solved captcha.
  std::string backend;
  std::size_t sessions = 0;
  for (const auto& event : sandbox.events()) {
    if (event.value("event", "") == "backend") backend += event.value("decision", "") + " ";
    if (event.value("type", "") == QSFM_APP_INIT) ++sessions;
  }
  EXPECT_EQ(backend, "captcha ");
  EXPECT_EQ(sessions, 3u) << readFile(dir.path() / "events.jsonl");
}

TEST(CHttp, CurlProtectionFromC) {
  const std::string host = envOr("QS_C_HTTP_TEST_BIN");
  if (host.empty() || envOr("QS_SANDBOX_BIN").empty()) {
    GTEST_SKIP() << "the HTTP component or the sandbox is not built";
  }
  TempDir dir;
  SandboxProcess sandbox(dir.path(), {});
  ASSERT_NE(sandbox.port(), 0) << sandbox.output();
  std::vector<std::string> env = hostEnvironment(sandbox, dir.path());
  for (auto& entry : test::headlessToolkitEnvironment()) env.push_back(std::move(entry));
  const auto output = dir.path() / "c-http-test.out";
  ChildProcess child({"xvfb-run", "-a", host, "c-app", "90"}, env, output.string());
  ASSERT_TRUE(child.started());
  ASSERT_EQ(child.waitExit(150), 0) << readFile(output);

  // What the backend received, by the case each request named.
  std::map<std::string, std::vector<Value>> cases;
  for (const auto& event : sandbox.events()) {
    if (event.value("event", "") == "backend") cases[event.value("case", "")].push_back(event);
  }
  EXPECT_FALSE(cases.contains("refused"));
  ASSERT_EQ(cases["allowed"].size(), 1u);
  EXPECT_EQ(cases["allowed"][0].value("authorization", "").rfind("3:", 0), 0u);
  const auto& solve = cases["solve"];
  ASSERT_EQ(solve.size(), 2u) << readFile(output);
  EXPECT_EQ(solve[0]["decision"], "captcha");
  EXPECT_EQ(solve[1]["decision"], "allow");
  EXPECT_NE(solve[0]["authorization"], solve[1]["authorization"]);
  for (const auto& e : solve) EXPECT_EQ(e["body"], "qty=2");
}

}  // namespace
}  // namespace qs::testing

// C hosts against the sandbox: the example (examples/c-host) gets a level-3
// token through the C interface and its custom parameters, set as JSON text,
// reach the collector; a GTK host in C (src/c/http/CApiHttp_test.c) sends
// its requests through the libcurl protection's C interface under its own
// headless X server. The C interface's captcha path is also driven by the
// Python package's window test.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "HeadlessToolkit.h"
#include "SandboxProcess.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

// The host program that $`variable` names; "" when it or the sandbox is not built.
std::string hostProgram(const char* variable) {
  return envOr("QS_SANDBOX_BIN").empty() ? "" : envOr(variable);
}

// Runs `host` against a fresh sandbox until it exits; its output, and the
// sandbox's events in `events`.
std::string runHost(const std::string& host, bool headless, std::vector<std::string> env,
                    std::vector<Value>& events) {
  TempDir dir;
  SandboxProcess sandbox(dir.path(), {});
  EXPECT_NE(sandbox.port(), 0) << sandbox.output();
  for (auto& entry : sandbox.hostEnvironment(dir.path(), (dir.path() / "store.sqlite").string())) {
    env.push_back(std::move(entry));
  }
  std::vector<std::string> argv{host, "c-app", "90"};
  if (headless) {
    for (auto& entry : test::headlessToolkitEnvironment()) env.push_back(std::move(entry));
    argv.insert(argv.begin(), {"xvfb-run", "-a"});
  }
  const auto output = dir.path() / "host.out";
  ChildProcess child(argv, env, output.string());
  EXPECT_TRUE(child.started());
  EXPECT_EQ(child.waitExit(150), 0) << readFile(output);
  events = sandbox.events();
  return readFile(output);
}

TEST(CHost, ReadyHeadersAndCustomParameters) {
  const std::string host = hostProgram("QS_C_HOST_BIN");
  if (host.empty()) GTEST_SKIP() << "the C host or the sandbox is not built";
  std::vector<Value> events;
  const std::string printed =
      runHost(host, false, {R"(QS_CUSTOM_PARAMETERS={"plan": "gold", "seats": 3})"}, events);
  EXPECT_NE(printed.find("ready with 1 header(s)"), std::string::npos) << printed;
  EXPECT_NE(printed.find("header X-QS-AUTHORIZATION: 3:"), std::string::npos) << printed;

  // Challenge answers carry no host parameters; every app activity does.
  bool carried = false;
  for (const auto& event : events) {
    if (event.value("event", "") != "activity" || !event.contains("d") ||
        event.value("type", "") == QSFM_APP_CHALLENGE) {
      continue;
    }
    EXPECT_EQ(event["d"].value("plan", ""), "gold") << event.dump();
    EXPECT_EQ(event["d"].value("seats", 0), 3) << event.dump();
    carried = true;
  }
  EXPECT_TRUE(carried);
}

TEST(CHttp, CurlProtectionFromC) {
  const std::string host = hostProgram("QS_C_HTTP_TEST_BIN");
  if (host.empty()) GTEST_SKIP() << "the HTTP component or the sandbox is not built";
  std::vector<Value> events;
  const std::string printed = runHost(host, true, {}, events);

  // What the backend received, by the case each request named.
  std::map<std::string, std::vector<Value>> cases;
  for (const auto& event : events) {
    if (event.value("event", "") == "backend") cases[event.value("case", "")].push_back(event);
  }
  EXPECT_FALSE(cases.contains("refused"));
  ASSERT_EQ(cases["allowed"].size(), 1u);
  EXPECT_EQ(cases["allowed"][0].value("authorization", "").rfind("3:", 0), 0u);
  const auto& solve = cases["solve"];
  ASSERT_EQ(solve.size(), 2u) << printed;
  EXPECT_EQ(solve[0]["decision"], "captcha");
  EXPECT_EQ(solve[1]["decision"], "allow");
  EXPECT_NE(solve[0]["authorization"], solve[1]["authorization"]);
  for (const auto& e : solve) EXPECT_EQ(e["body"], "qty=2");
}

}  // namespace
}  // namespace qs::testing

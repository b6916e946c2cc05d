// The C host example (examples/c-host) against the sandbox: it gets a
// level-3 token through the C interface, and the custom parameters it sets
// as JSON text reach the collector inside its activities.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SandboxProcess.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

TEST(CHost, ReadyHeadersAndCustomParameters) {
  const std::string host = envOr("QS_C_HOST_BIN");
  if (host.empty() || envOr("QS_SANDBOX_BIN").empty()) {
    GTEST_SKIP() << "the C host or the sandbox is not built";
  }
  TempDir dir;
  SandboxProcess sandbox(dir.path(), {});
  ASSERT_NE(sandbox.port(), 0) << sandbox.output();
  const DeploymentSettings settings = sandbox.settings((dir.path() / "store.sqlite").string());

  const std::vector<std::string> env{"QS_COLLECTOR_HOST_PATTERN=" + settings.collectorHostPattern,
                                     "QS_WEB_DOMAIN=" + settings.webDomain,
                                     "QS_CA_FILE=" + settings.caFile,
                                     "QS_STORE_PATH=" + settings.storePath,
                                     R"(QS_CUSTOM_PARAMETERS={"plan": "gold", "seats": 3})"};
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

}  // namespace
}  // namespace qs::testing

// The demo host's whole flow against the sandbox, checked from the service's
// side: what the sandbox decrypted and decided, event by event. The demo
// runs under its own headless X server (xvfb-run), so the captcha page is
// shown and solved in the real web view.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "HeadlessToolkit.h"
#include "SandboxProcess.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

std::string field(const Value& object, const std::string& key) {
  auto it = object.find(key);
  if (it == object.end()) return {};
  return it->is_string() ? it->get<std::string>() : it->dump();
}

std::vector<Value> select(const std::vector<Value>& events, const std::string& kind,
                          const std::string& type = {}) {
  std::vector<Value> out;
  for (const auto& e : events) {
    if (field(e, "event") == kind && (type.empty() || field(e, "type") == type)) out.push_back(e);
  }
  return out;
}

// The fields of the first answer command that starts with `prefix`.
std::vector<std::string> answerCommand(const Value& event, const std::string& prefix) {
  for (const auto& command : event.value("answer", Value::array())) {
    std::string text = command.is_string() ? command.get<std::string>() : "";
    if (text.rfind(prefix, 0) != 0) continue;
    std::vector<std::string> fields;
    std::size_t from = 0;
    for (std::size_t bar; (bar = text.find('|', from)) != std::string::npos; from = bar + 1) {
      fields.push_back(text.substr(from, bar - from));
    }
    fields.push_back(text.substr(from));
    return fields;
  }
  return {};
}

std::string sha1Hex(const std::string& text) {
  std::string hex;
  for (auto byte : makeOpenSslCrypto()->sha1(text)) {
    char two[3];
    std::snprintf(two, sizeof two, "%02x", byte);
    hex += two;
  }
  return hex;
}

TEST(EndToEnd, DemoFlowAsTheSandboxSawIt) {
  const std::string demo = envOr("QS_DEMO_BIN");
  if (demo.empty() || envOr("QS_SANDBOX_BIN").empty()) {
    GTEST_SKIP() << "the demo host or the sandbox is not built";
  }
  TempDir dir;
  // A short time to live, so that the demo also sees a renewal (at 80% of
  // it), yet long enough that no renewal comes before the captcha is solved.
  SandboxProcess sandbox(dir.path(), {"--token-ttl", "12"});
  ASSERT_NE(sandbox.port(), 0) << sandbox.output();
  auto env = sandbox.hostEnvironment(dir.path(), (dir.path() / "store.sqlite").string());
  for (auto& entry : test::headlessToolkitEnvironment()) env.push_back(std::move(entry));
  ChildProcess host({"xvfb-run", "-a", demo, "--expect-renewal", "--timeout", "60"}, env,
                    (dir.path() / "demo.out").string());
  ASSERT_TRUE(host.started());
  const auto status = host.waitExit(240);
  ASSERT_EQ(status, 0) << readFile(dir.path() / "demo.out");

  // The misuse report is sent last; it may still be on its way.
  const std::string misuse =
      "QS Error - call handleBlock() only after you pass the responseJson via checkError() method";
  auto isMisuse = [&](const Value& e) {
    return field(e, "event") == "client_error" && e.contains("report") &&
           field(e["report"], "message") == misuse;
  };
  EXPECT_TRUE(sandbox.waitForEvents(isMisuse, 1, 10)) << readFile(dir.path() / "events.jsonl");

  const auto events = sandbox.events();
  for (const auto& report : select(events, "client_error")) {
    EXPECT_FALSE(report.contains("missing")) << report.dump();
    EXPECT_EQ(field(report["report"], "appId"), "demo-app");
  }

  // New sessions: the device and fingerprint fields, consistent with each other.
  const auto inits = select(events, "activity", QSFM_APP_INIT);
  ASSERT_EQ(inits.size(), 3u);  // the start, the forced captcha, the solved captcha
  std::string processUuid;
  std::vector<std::string> seconds;
  for (const auto& init : inits) {
    const Value& d = init.at("d");
    EXPECT_EQ(field(d, QSFM_APP_STATE), "new_session");
    EXPECT_EQ(field(init, "decision"), "new_session");
    EXPECT_FALSE(field(d, QSFM_DEVICE_MODEL).empty());
    EXPECT_EQ(d.value(QSFM_SCREEN_WIDTH, 0.0), 1024.0);
    EXPECT_EQ(d.value(QSFM_SCREEN_HEIGHT, 0.0), 768.0);
    const std::string f1 = field(d, QSFM_FINGERPRINT1), f2 = field(d, QSFM_FINGERPRINT2);
    if (processUuid.empty()) processUuid = f1;
    EXPECT_EQ(f1, processUuid) << "one UUID for the life of the process";
    EXPECT_EQ(f2.size(), 8u);
    seconds.push_back(f2);
    EXPECT_EQ(field(d, QSFM_FINGERPRINT3),
              sha1Hex(field(d, QSFM_DEVICE_MODEL) + "|,|" + f1 + "|,|" + f2));
  }
  std::sort(seconds.begin(), seconds.end());
  EXPECT_EQ(std::unique(seconds.begin(), seconds.end()), seconds.end())
      << "a fresh second fingerprint in every activity";

  // Each challenge is answered with its uuid reversed, and the answer passes.
  const auto answers = select(events, "activity", QSFM_APP_CHALLENGE);
  ASSERT_FALSE(answers.empty());
  for (const auto& init : inits) {
    const auto appc = answerCommand(init, "appc|");
    ASSERT_EQ(appc.size(), 5u) << init.dump();
    const std::string reversed(appc[4].rbegin(), appc[4].rend());
    auto answered = std::find_if(answers.begin(), answers.end(), [&](const Value& a) {
      return field(a.at("d"), QSFM_CHALLENGE_RESULT) == reversed;
    });
    ASSERT_NE(answered, answers.end()) << "no answer to " << appc[4];
    EXPECT_EQ(field(*answered, "decision"), "challenge_passed");
    EXPECT_EQ(field(answered->at("d"), QSFM_CHALLENGE_SIGNED), appc[3]);
    EXPECT_EQ(answerCommand(*answered, "bake|_qs3|").size(), 6u) << answered->dump();
  }

  // The token ran out of time and was renewed by an idle activity.
  const auto idles = select(events, "activity", QSFM_APP_IDLE);
  ASSERT_FALSE(idles.empty());
  EXPECT_EQ(field(idles.front(), "decision"), "token_renewed");
  EXPECT_EQ(field(idles.front().at("d"), QSFM_APP_STATE), "idle");
  EXPECT_EQ(answerCommand(idles.front(), "bake|_qs3|").size(), 6u);

  // The backend allowed the "3:" tokens, challenged the forced captcha, and
  // allowed the fresh token afterwards: the protected call's own retry, then
  // the demo's next call. The solved captcha brought a new session before.
  std::string sequence;
  for (const auto& e : events) {
    if (field(e, "event") == "backend") sequence += field(e, "decision") + " ";
    if (field(e, "type") == QSFM_APP_INIT) sequence += "session ";
  }
  EXPECT_EQ(sequence, "session allow session captcha session allow allow ");
  EXPECT_EQ(select(events, "captcha_callback").size(), 0u) << "the web view keeps the callback";
  EXPECT_TRUE(select(events, "rejected").empty());
}

}  // namespace
}  // namespace qs::testing

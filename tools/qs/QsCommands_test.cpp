#include "QsCommands.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "crypto/SHA256_CBC.h"

namespace qs::tool {
namespace {

CommandResult run(std::vector<std::string> args, std::string input = "") {
  return runQs(args, [input] { return input; });
}

TEST(QsCommandsTest, BadArgumentsPrintUsageAndNothingOnStdout) {
  for (const char* line :
       {"", "frobnicate", "encrypt", "encrypt --key", "decrypt --key a --key b", "fields --key a",
        "parse --verbose", "activity", "activity --state 4", "activity --state 1x"}) {
    std::vector<std::string> args;
    std::istringstream words(line);
    for (std::string word; words >> word;) args.push_back(word);
    const CommandResult r = runQs(args, [] {
      ADD_FAILURE() << "input read on bad arguments";
      return std::string();
    });
    EXPECT_EQ(r.status, 2) << line;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("usage: qs"), std::string::npos);
  }
  EXPECT_EQ(run({"help"}).out, kUsage);
}

TEST(QsCommandsTest, EncryptThenDecryptWithTheRightKeyOnly) {
  const std::string plain = "{\"t\":\"QS325\"}\n\x01\xff";
  CommandResult enc = run({"encrypt", "--key=my-app"}, plain);
  ASSERT_EQ(enc.status, 0);
  EXPECT_EQ(enc.out.back(), '\n');
  EXPECT_EQ(SHA256_CBC::decryptBase64String(enc.out, "my-app"), Bytes(plain.begin(), plain.end()));
  EXPECT_EQ(run({"decrypt", "--key", "my-app"}, enc.out).out, plain);

  CommandResult wrong = run({"decrypt", "--key", "other"}, enc.out);
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(wrong.out, "");
  EXPECT_EQ(wrong.err.find('\n'), wrong.err.size() - 1);
  EXPECT_EQ(run({"decrypt", "--key", "k"}, "Zg=x").status, 1);
}

TEST(QsCommandsTest, ParseShowsWhatTheAnswerCarries) {
  CommandResult r = run({"parse"}, R"({"do":["sid|A","bake|odd|x|T|y|60","appc|t|7|h|u"]})");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Value::parse(r.out), Value::parse(R"({"sid":"A","cookie":{"name":"odd","token":"T",
                             "level":18446744073709551615},
                             "challenge":{"type":"t","timestamp":7,"signedHash":"h","uuid":"u"}})"));
  EXPECT_EQ(Value::parse(run({"parse"}, R"({"do":["appc|t|x|h|u"]})").out)["challenge"].size(), 3u);
  EXPECT_EQ(Value::parse(run({"parse"}, "not json").out), Value::object());

  CommandResult bad = run({"parse"}, R"({"do":["vid"]})");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out, "");
  EXPECT_NE(bad.err.find("\"vid\""), std::string::npos);
}

TEST(QsCommandsTest, InspectDecryptsAnUnescapedFormBody) {
  // An activity whose ciphertext's base64 carries "=", and likely "+" or "/".
  const std::string activity = R"([{"t":"QS315","d":{"QS320":"x86_64","QS999":1,"custom":"c"}}])";
  const std::string payload = SHA256_CBC::encryptStringToBase64String(activity, "app-1");
  ASSERT_NE(payload.find('='), std::string::npos);
  const std::string body = "uuid=u-1&tag=v2.51&en=1&payload=" + payload + "&appId=app-1\n";

  CommandResult r = run({"inspect", "--key", "app-1"}, body);
  ASSERT_EQ(r.status, 0) << r.err;
  Value out = Value::parse(r.out);
  EXPECT_EQ(out["pairs"]["payload"], payload);
  EXPECT_EQ(out["pairs"]["appId"], "app-1");
  const char* expected =
      R"j([{"t": "QS315 (QSFM_APP_INIT)",
            "d": {"QS320 (QSFM_DEVICE_MODEL)": "x86_64", "QS999": 1, "custom": "c"}}])j";
  EXPECT_EQ(out["activities"], Value::parse(expected));

  EXPECT_EQ(run({"inspect", "--key", "app-2"}, body).status, 1);
  EXPECT_EQ(run({"inspect", "--key", "app-1"}, "uuid=u&appId=a").status, 1);
  EXPECT_EQ(run({"inspect", "--key", "app-1"}, body + "&payload=x").status, 1);
  // Nesting too deep to print is refused, not crashed on.
  const std::string deep =
      SHA256_CBC::encryptStringToBase64String(std::string(2000, '[') + std::string(2000, ']'), "k");
  CommandResult tooDeep = run({"inspect", "--key", "k"}, "payload=" + deep);
  EXPECT_EQ(tooDeep.status, 1);
  EXPECT_EQ(tooDeep.out, "");
}

// Runs the real Linux platform over a temporary store.
TEST(QsCommandsTest, ActivityIsBuiltOnThisMachineOverAFreshStore) {
  CommandResult init = run({"activity", "--state", "0"});
  ASSERT_EQ(init.status, 0) << init.err;
  Value record = Value::parse(init.out);
  EXPECT_EQ(record["t"], "QS315");
  EXPECT_EQ(record["d"]["QS330"], "new_session");
  EXPECT_EQ(record["d"]["QS341"], "qs");
  EXPECT_EQ(record["d"]["QS345"], 1);  // a fresh store: the first resume
  EXPECT_FALSE(record["d"]["QS322"].get<std::string>().empty());

  record = Value::parse(run({"activity", "--state=3"}).out);
  EXPECT_EQ(record["t"], "QS325");
  EXPECT_EQ(record["d"]["QS330"], "idle");
  EXPECT_FALSE(record["d"].contains("QS345"));
}

}  // namespace
}  // namespace qs::tool

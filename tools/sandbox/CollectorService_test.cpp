#include "CollectorService.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "SandboxCodec.h"
#include "crypto/SHA256_CBC.h"

namespace qs::sandbox {
namespace {

using Commands = std::vector<std::vector<std::string>>;

class CollectorServiceTest : public ::testing::Test {
 protected:
  double now = 1'700'000'000;
  TokenSigner signer{"secret"};
  CollectorService service{signer, [this] { return now; }, CollectorSettings{}};

  static std::string encrypt(const std::string& json, const std::string& key) {
    return SHA256_CBC::encryptStringToBase64String(json, key);
  }
  static std::string body(const Value& activity, const std::string& ids = "") {
    return "uuid=u-1&tag=v2.51&en=1&payload=" + encrypt(Value::array({activity}).dump(), "APP") +
           ids + "&appId=APP";
  }
  static Value appActivity(const char* type, const char* state) {
    return {{"t", type}, {"d", {{"QS320", "model"}, {"QS330", state}}}};
  }
  static Commands commands(const HttpOutcome& outcome) {
    Commands out;
    const Value answer = Value::parse(outcome.body);
    for (const auto& command : answer.at("do")) {
      std::vector<std::string> fields;
      std::string text = command.get<std::string>();
      for (std::size_t at; (at = text.find('|')) != std::string::npos; text.erase(0, at + 1)) {
        fields.push_back(text.substr(0, at));
      }
      fields.push_back(text);
      out.push_back(fields);
    }
    return out;
  }
  static std::vector<std::string> find(const Commands& all, const std::string& name) {
    for (const auto& c : all) {
      if (c[0] == name) return c;
    }
    return {};
  }
  // A challenge answer as the client builds it from an "appc" command.
  static Value answer(const std::vector<std::string>& appc) {
    return {{"t", "QS329"},
            {"d",
             {{"QS259", std::stoll(appc[2])},
              {"QS320", "model"},
              {"QS256", appc[3]},
              {"QS257", std::string(appc[4].rbegin(), appc[4].rend())}}}};
  }
  std::vector<std::string> newSessionChallenge(std::string& sid, std::string& vid) {
    const Commands c = commands(service.collect(body(appActivity("QS315", "new_session")), ""));
    sid = find(c, "sid").at(1);
    vid = find(c, "vid").at(1);
    return find(c, "appc");
  }
};

TEST_F(CollectorServiceTest, NewVisitorIsChallengedAndTheCorrectAnswerEarnsAToken) {
  const HttpOutcome first = service.collect(body(appActivity("QS315", "new_session")), "");
  EXPECT_EQ(first.status, 200);
  const Commands c = commands(first);
  ASSERT_EQ(c.size(), 3u) << first.body;
  const auto appc = find(c, "appc");
  ASSERT_EQ(appc.size(), 5u);
  EXPECT_EQ(appc[2], "1700000000");
  EXPECT_EQ(appc[3], signer.challengeHash(appc[4], 1'700'000'000));
  EXPECT_EQ(appc[4].size(), 36u);
  EXPECT_TRUE(find(c, "bake").empty());
  EXPECT_EQ(first.event["event"], "activity");
  EXPECT_EQ(first.event["decision"], "new_session");
  EXPECT_EQ(first.event["d"]["QS320"], "model");

  const std::string sid = find(c, "sid").at(1);
  const std::string vid = find(c, "vid").at(1);
  EXPECT_TRUE(signer.isKnownVisitor(vid));
  now += 10;
  const HttpOutcome second = service.collect(body(answer(appc), "&sid=" + sid + "&vid=" + vid), "");
  const Commands d = commands(second);
  ASSERT_EQ(d.size(), 1u) << second.body;  // known session and visitor: only the token
  const auto bake = find(d, "bake");
  ASSERT_EQ(bake.size(), 6u);
  EXPECT_EQ(bake[1], "_qs3");
  EXPECT_EQ(bake[5], "600");
  const TokenCheck token = signer.verify(bake[3], now);
  EXPECT_EQ(token.status, TokenStatus::Valid);
  EXPECT_EQ(token.claims.vid, vid);
  EXPECT_EQ(token.claims.appId, "APP");
  EXPECT_EQ(token.claims.expiresAt, 1'700'000'010 + 600);
  EXPECT_EQ(second.event["decision"], "challenge_passed");
}

TEST_F(CollectorServiceTest, WrongOrStaleChallengeAnswersEarnNoToken) {
  std::string sid, vid;
  const auto appc = newSessionChallenge(sid, vid);
  const std::string ids = "&sid=" + sid + "&vid=" + vid;
  const auto decision = [&](const Value& a) {
    const HttpOutcome o = service.collect(body(a, ids), "");
    EXPECT_TRUE(find(commands(o), "bake").empty()) << o.body;
    return o.event["decision"].get<std::string>();
  };

  Value notReversed = answer(appc);
  notReversed["d"]["QS257"] = appc[4];
  Value otherHash = answer(appc);
  otherHash["d"]["QS256"] = signer.challengeHash(appc[4], 1);
  Value otherTime = answer(appc);
  otherTime["d"]["QS259"] = 1'700'000'001;
  Value incomplete = answer(appc);
  incomplete["d"].erase("QS256");
  for (const Value& a : {notReversed, otherHash, otherTime, incomplete}) {
    EXPECT_EQ(decision(a), "challenge_failed") << a.dump();
  }

  // The timestamp may come back as an integral float or as digits.
  for (const Value& ts : {Value(std::stod(appc[2])), Value(appc[2])}) {
    Value a = answer(appc);
    a["d"]["QS259"] = ts;
    EXPECT_FALSE(find(commands(service.collect(body(a, ids), "")), "bake").empty()) << ts;
  }

  now += 301;
  EXPECT_EQ(decision(answer(appc)), "challenge_stale");
  now -= 1;  // exactly five minutes old still counts
  EXPECT_FALSE(find(commands(service.collect(body(answer(appc), ids), "")), "bake").empty());
}

TEST_F(CollectorServiceTest, OnlyKnownVisitorsRenewTheirToken) {
  const std::string vid = signer.newVisitorId();
  const std::string known = "&sid=S&vid=" + vid;
  for (const Value& a : {appActivity("QS325", "idle"), appActivity("QS315", "bg_to_fg")}) {
    const Commands c = commands(service.collect(body(a, known), ""));
    ASSERT_EQ(c.size(), 1u) << a.dump();
    EXPECT_EQ(signer.verify(find(c, "bake").at(3), now).claims.vid, vid);
  }

  // A new session, even from a known visitor, or an activity without sid is
  // challenged first.
  for (const auto& [a, ids] : {std::pair{appActivity("QS315", "new_session"), known},
                               std::pair{appActivity("QS325", "idle"), "&vid=" + vid}}) {
    const Commands c = commands(service.collect(body(a, ids), ""));
    EXPECT_FALSE(find(c, "sid").empty());
    EXPECT_FALSE(find(c, "appc").empty());
    EXPECT_TRUE(find(c, "vid").empty());
    EXPECT_TRUE(find(c, "bake").empty());
  }

  const HttpOutcome stranger =
      service.collect(body(appActivity("QS325", "idle"), "&sid=S&vid=not-ours"), "");
  const Commands s = commands(stranger);
  EXPECT_TRUE(find(s, "bake").empty());
  EXPECT_TRUE(signer.isKnownVisitor(find(s, "vid").at(1)));
  EXPECT_EQ(stranger.event["decision"], "unknown_visitor");
}

TEST_F(CollectorServiceTest, SimulateHeaderMarksTheBakedToken) {
  const std::string ids = "&sid=S&vid=" + signer.newVisitorId();
  const HttpOutcome o = service.collect(body(appActivity("QS325", "idle"), ids), "block");
  EXPECT_EQ(signer.verify(find(commands(o), "bake").at(3), now).claims.simulate, "block");
  EXPECT_EQ(o.event["simulate"], "block");
  const HttpOutcome odd = service.collect(body(appActivity("QS325", "idle"), ids), "maybe");
  EXPECT_EQ(signer.verify(find(commands(odd), "bake").at(3), now).claims.simulate, "");
}

TEST_F(CollectorServiceTest, MalformedRequestsAreRefusedWith400) {
  const auto payloadOf = [](const std::string& json) {
    return "payload=" + encrypt(json, "APP") + "&appId=APP";
  };
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const std::vector<std::string> bodies = {
      "",
      "&&&",
      "payload",
      "appId=APP",
      "payload=" + encrypt("[{}]", "APP"),
      "payload=%%%&appId=APP",
      "payload=" + encrypt(R"([{"t":"QS315","d":{}}])", "OTHER") + "&appId=APP",
      "payload=" + std::string(300000, 'A') + "&appId=APP",
      payloadOf("not json"),
      payloadOf(R"({"t":"QS315","d":{}})"),
      payloadOf("[]"),
      payloadOf("[1]"),
      payloadOf(R"([{"t":1,"d":{}}])"),
      payloadOf(R"([{"t":"QS315","d":[]}])"),
      payloadOf(R"([{"t":"QS315","d":{}},{"t":"QS315","d":{}}])"),
      payloadOf(deep),
  };
  for (const std::string& b : bodies) {
    const HttpOutcome o = service.collect(b, "");
    EXPECT_EQ(o.status, 400) << b.substr(0, 80);
    EXPECT_EQ(o.event["event"], "rejected");
    EXPECT_FALSE(Value::parse(o.body).at("error").get<std::string>().empty());
  }
}

TEST_F(CollectorServiceTest, FaultModesShapeTheAnswer) {
  const std::string request = body(appActivity("QS315", "new_session"));
  service.setMode(SandboxMode::Down);
  EXPECT_TRUE(service.collect(request, "").dropConnection);
  EXPECT_TRUE(service.clientError("/x?r=%7B%7D").dropConnection);

  service.setMode(SandboxMode::Slow);
  const HttpOutcome slow = service.collect(request, "");
  EXPECT_EQ(slow.delaySeconds, 7);
  EXPECT_FALSE(find(commands(slow), "appc").empty());
  EXPECT_EQ(slow.event["mode"], "slow");

  service.setMode(SandboxMode::Garbage);
  const HttpOutcome garbage = service.collect(request, "");
  EXPECT_EQ(garbage.status, 200);
  EXPECT_FALSE(SandboxCodec::parseJson(garbage.body));
  EXPECT_EQ(garbage.event["event"], "activity");  // still decrypted and logged
}

TEST_F(CollectorServiceTest, ClientErrorReportsAreDecodedAsTheClientEncodesThem) {
  // The client escapes everything but letters, digits and !$&'()*+,-.:;=[]_~
  const auto encode = [](const std::string& text) {
    static const std::string keep = "!$&'()*+,-.:;=[]_~";
    std::string out;
    for (unsigned char ch : text) {
      if (std::isalnum(ch) || keep.find(static_cast<char>(ch)) != std::string::npos) {
        out.push_back(static_cast<char>(ch));
      } else {
        char escape[4];
        std::snprintf(escape, sizeof escape, "%%%02X", ch);
        out += escape;
      }
    }
    return out;
  };
  const Value report = {
      {"message", "a+b & c=d"}, {"tag", "App/1.0 (x)"}, {"appId", "APP"}, {"sdk_version", "0.4.0"}};
  const HttpOutcome ok =
      service.clientError("/api/v1/collector/clientError?r=" + encode(report.dump()));
  EXPECT_EQ(ok.status, 200);
  EXPECT_EQ(ok.event["report"], report);
  EXPECT_FALSE(ok.event.contains("missing"));

  const HttpOutcome partial = service.clientError("/e?r=" + encode(R"({"message":"m"})"));
  EXPECT_EQ(partial.event["missing"], Value({"tag", "appId", "sdk_version"}));

  for (const char* target :
       {"/e", "/e?x=1", "/e?r=%7", "/e?r=%zz", "/e?r=notjson", "/e?r=%5B%5D"}) {
    EXPECT_EQ(service.clientError(target).status, 400) << target;
  }
}

}  // namespace
}  // namespace qs::sandbox

#include "CollectorService.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "SandboxCodec.h"
#include "collector/CollectorRequest.h"
#include "collector/CollectorResponse.h"
#include "crypto/SHA256_CBC.h"

namespace qs::sandbox {
namespace {

// Answers are read with the library's own response parser, and challenges
// answered the way the library answers them.
class CollectorServiceTest : public ::testing::Test {
 protected:
  double now = 1'700'000'000;
  TokenSigner signer{"secret"};
  CollectorService service{signer, [this] { return now; }, CollectorSettings{}};

  static std::string encrypt(const std::string& json, const std::string& key) {
    return SHA256_CBC::encryptStringToBase64String(json, key);
  }
  // The form body exactly as the library encodes it; ids is "&sid=S&vid=V".
  static std::string body(const Value& activity, const std::string& ids = "") {
    Value form = {{"uuid", "u-1"},
                  {"tag", "v2.51"},
                  {"en", "1"},
                  {"payload", CollectorRequest::payloadValueToBase64(activity, "APP")}};
    const auto extra = FormBody::parse(ids);
    for (const auto& [key, value] : extra.value->fields) form[key] = value;
    form["appId"] = "APP";
    return CollectorRequest::toFormSubmitPostString(form);
  }
  static Value appActivity(const char* type, const char* state) {
    return {{"t", type}, {"d", {{"QS320", "model"}, {"QS330", state}}}};
  }
  CollectorResponse parse(const HttpOutcome& outcome) const {
    std::string error;
    const auto response =
        CollectorResponse::initWithCollectorResponse(Value::parse(outcome.body), now, &error);
    EXPECT_TRUE(response) << error << " in " << outcome.body;
    return response.value_or(CollectorResponse());
  }
  CollectorResponse post(const Value& activity, const std::string& ids = "") {
    return parse(service.collect(body(activity, ids), ""));
  }
  static Value answer(const QSChallenge& c) {
    return {{"t", "QS329"},
            {"d",
             {{"QS259", c.timestamp().value_or(Value())},
              {"QS320", "model"},
              {"QS256", c.signedHash()},
              {"QS257", std::string(c.uuid().rbegin(), c.uuid().rend())}}}};
  }
  // Starts a new session; returns its challenge and the ids to send back.
  QSChallenge newSessionChallenge(std::string& ids) {
    const CollectorResponse r = post(appActivity("QS315", "new_session"));
    ids = "&sid=" + r.sid().value_or("") + "&vid=" + r.vid().value_or("");
    return r.challenge().value_or(QSChallenge("", "", "", ""));
  }
};

TEST_F(CollectorServiceTest, NewVisitorIsChallengedAndTheCorrectAnswerEarnsAToken) {
  const HttpOutcome first = service.collect(body(appActivity("QS315", "new_session")), "");
  EXPECT_EQ(first.status, 200);
  EXPECT_EQ(Value::parse(first.body)["do"].size(), 3u);
  const CollectorResponse r = parse(first);
  ASSERT_TRUE(r.sid() && r.vid() && r.challenge()) << first.body;
  EXPECT_FALSE(r.cookie());
  const QSChallenge& c = *r.challenge();
  EXPECT_EQ(c.timestamp(), Value(1'700'000'000));
  EXPECT_EQ(c.signedHash(), signer.challengeHash(c.uuid(), 1'700'000'000));
  EXPECT_EQ(c.uuid().size(), 36u);
  EXPECT_TRUE(signer.isKnownVisitor(*r.vid()));
  EXPECT_EQ(first.event["event"], "activity");
  EXPECT_EQ(first.event["decision"], "new_session");
  EXPECT_EQ(first.event["d"]["QS320"], "model");

  now += 10;
  const HttpOutcome second =
      service.collect(body(answer(c), "&sid=" + *r.sid() + "&vid=" + *r.vid()), "");
  EXPECT_EQ(Value::parse(second.body)["do"].size(), 1u);  // known session and visitor
  const CollectorResponse t = parse(second);
  ASSERT_TRUE(t.cookie()) << second.body;
  EXPECT_EQ(t.cookie()->name(), "_qs3");
  EXPECT_EQ(t.cookie()->ttlFireDate(), now + 0.8 * 600);
  const TokenCheck token = signer.verify(t.cookie()->token(), now);
  EXPECT_EQ(token.status, TokenStatus::Valid);
  EXPECT_EQ(token.claims.vid, *r.vid());
  EXPECT_EQ(token.claims.appId, "APP");
  EXPECT_EQ(token.claims.expiresAt, 1'700'000'010 + 600);
  EXPECT_EQ(second.event["decision"], "challenge_passed");
}

TEST_F(CollectorServiceTest, WrongOrStaleChallengeAnswersEarnNoToken) {
  std::string ids;
  const QSChallenge c = newSessionChallenge(ids);
  const auto decision = [&](const Value& a) {
    const HttpOutcome o = service.collect(body(a, ids), "");
    EXPECT_FALSE(parse(o).cookie()) << o.body;
    return o.event["decision"].get<std::string>();
  };

  Value notReversed = answer(c);
  notReversed["d"]["QS257"] = c.uuid();
  Value otherHash = answer(c);
  otherHash["d"]["QS256"] = signer.challengeHash(c.uuid(), 1);
  Value otherTime = answer(c);
  otherTime["d"]["QS259"] = 1'700'000'001;
  Value incomplete = answer(c);
  incomplete["d"].erase("QS256");
  for (const Value& a : {notReversed, otherHash, otherTime, incomplete}) {
    EXPECT_EQ(decision(a), "challenge_failed") << a.dump();
  }

  // The timestamp may also come back as an integral float or as digits.
  for (const Value& ts : {Value(1'700'000'000.0), Value("1700000000")}) {
    Value a = answer(c);
    a["d"]["QS259"] = ts;
    EXPECT_TRUE(post(a, ids).cookie()) << ts;
  }

  now += 301;
  EXPECT_EQ(decision(answer(c)), "challenge_stale");
  now -= 1;  // exactly five minutes old still counts
  EXPECT_TRUE(post(answer(c), ids).cookie());
}

TEST_F(CollectorServiceTest, OnlyKnownVisitorsRenewTheirToken) {
  const std::string vid = signer.newVisitorId();
  const std::string known = "&sid=S&vid=" + vid;
  for (const Value& a : {appActivity("QS325", "idle"), appActivity("QS315", "bg_to_fg")}) {
    const CollectorResponse r = post(a, known);
    EXPECT_FALSE(r.sid() || r.vid() || r.challenge()) << a.dump();
    ASSERT_TRUE(r.cookie());
    EXPECT_EQ(signer.verify(r.cookie()->token(), now).claims.vid, vid);
  }

  // A new session, even from a known visitor, or an activity without sid is
  // challenged first.
  for (const auto& [a, ids] : {std::pair{appActivity("QS315", "new_session"), known},
                               std::pair{appActivity("QS325", "idle"), "&vid=" + vid}}) {
    const CollectorResponse r = post(a, ids);
    EXPECT_TRUE(r.sid() && r.challenge());
    EXPECT_FALSE(r.vid() || r.cookie());
  }

  const HttpOutcome stranger =
      service.collect(body(appActivity("QS325", "idle"), "&sid=S&vid=not-ours"), "");
  const CollectorResponse s = parse(stranger);
  EXPECT_FALSE(s.cookie());
  EXPECT_TRUE(signer.isKnownVisitor(s.vid().value_or("")));
  EXPECT_EQ(stranger.event["decision"], "unknown_visitor");
}

TEST_F(CollectorServiceTest, SimulateHeaderMarksTheBakedToken) {
  const std::string ids = "&sid=S&vid=" + signer.newVisitorId();
  const HttpOutcome o = service.collect(body(appActivity("QS325", "idle"), ids), "block");
  EXPECT_EQ(signer.verify(parse(o).cookie().value().token(), now).claims.simulate, "block");
  EXPECT_EQ(o.event["simulate"], "block");
  const HttpOutcome odd = service.collect(body(appActivity("QS325", "idle"), ids), "maybe");
  EXPECT_EQ(signer.verify(parse(odd).cookie().value().token(), now).claims.simulate, "");
}

TEST_F(CollectorServiceTest, WithoutChallengesANewSessionIsTokenedAtOnce) {
  CollectorSettings settings;
  settings.challengeNewSessions = false;
  const CollectorService direct{signer, [this] { return now; }, settings};
  const HttpOutcome o = direct.collect(body(appActivity("QS315", "new_session")), "");
  const CollectorResponse r = parse(o);
  EXPECT_TRUE(r.sid() && r.vid());
  EXPECT_FALSE(r.challenge());
  ASSERT_TRUE(r.cookie()) << o.body;
  EXPECT_EQ(signer.verify(r.cookie()->token(), now).claims.vid, *r.vid());
  EXPECT_EQ(o.event["decision"], "new_session");
  // A challenge answer is still checked as before.
  EXPECT_EQ(
      direct.collect(body(answer(QSChallenge("", "", "", "")), "&sid=S"), "").event["decision"],
      "challenge_failed");
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
  EXPECT_TRUE(parse(slow).challenge());
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

#include "CollectorService.h"

#include <gtest/gtest.h>

#include <string>

#include "collector/CollectorRequest.h"
#include "collector/CollectorResponse.h"
#include "crypto/SHA256_CBC.h"

namespace qs::sandbox {
namespace {

// The collector's checks that the library's own runs never reach: only the
// right, fresh challenge answer earns a token, and what it cannot read is
// refused. Bodies are encoded, and answers read, by the library's own code.
class CollectorServiceTest : public ::testing::Test {
 protected:
  struct Answer {
    CollectorResponse response;
    std::string decision;
  };

  // Posts `activity` as the library encodes it, with `sid` and `vid` if set.
  Answer post(const Value& activity, const CollectorService* via = nullptr) const {
    Value form = {{"uuid", "u-1"},
                  {"tag", "v2.51"},
                  {"en", "1"},
                  {"payload", CollectorRequest::payloadValueToBase64(activity, "APP")}};
    if (!sid.empty()) form["sid"] = sid;
    if (!vid.empty()) form["vid"] = vid;
    form["appId"] = "APP";
    const HttpOutcome o =
        (via ? *via : service).collect(CollectorRequest::toFormSubmitPostString(form), "");
    std::string error;
    const auto r = CollectorResponse::initWithCollectorResponse(Value::parse(o.body), now, &error);
    EXPECT_TRUE(r) << error << " in " << o.body;
    return {r.value_or(CollectorResponse()), o.event.value("decision", "")};
  }
  static Value newSession() {
    return {{"t", "QS315"}, {"d", {{"QS320", "model"}, {"QS330", "new_session"}}}};
  }
  // The answer the library gives: the challenge's time and hash, uuid reversed.
  static Value answer(const QSChallenge& c) {
    return {{"t", "QS329"},
            {"d",
             {{"QS259", c.timestamp().value_or(Value())},
              {"QS320", "model"},
              {"QS256", c.signedHash()},
              {"QS257", std::string(c.uuid().rbegin(), c.uuid().rend())}}}};
  }

  double now = 1'700'000'000;
  TokenSigner signer{"secret"};
  CollectorService service{signer, [this] { return now; }, CollectorSettings{}};
  std::string sid, vid;
};

TEST_F(CollectorServiceTest, OnlyTheRightFreshChallengeAnswerEarnsAToken) {
  const Answer first = post(newSession());
  ASSERT_TRUE(first.response.sid() && first.response.vid() && first.response.challenge());
  EXPECT_FALSE(first.response.cookie());
  sid = *first.response.sid();
  vid = *first.response.vid();
  const QSChallenge c = *first.response.challenge();

  const auto with = [&](const char* key, const Value& value) {
    Value a = answer(c);
    if (value.is_null()) {
      a["d"].erase(key);
    } else {
      a["d"][key] = value;
    }
    return a;
  };
  const struct {
    const char* name;
    Value answer;
    bool passes;
  } cases[] = {
      {"uuid not reversed", with("QS257", c.uuid()), false},
      {"hash of another time", with("QS256", signer.challengeHash(c.uuid(), 1)), false},
      {"another time", with("QS259", 1'700'000'001), false},
      {"no hash", with("QS256", Value()), false},
      {"time as a float", with("QS259", 1'700'000'000.0), true},
      {"time as digits", with("QS259", "1700000000"), true},
  };
  for (const auto& k : cases) {
    const Answer a = post(k.answer);
    EXPECT_EQ(a.decision, k.passes ? "challenge_passed" : "challenge_failed") << k.name;
    EXPECT_EQ(a.response.cookie().has_value(), k.passes) << k.name;
  }

  now += 300;  // exactly five minutes old still counts, a second more does not
  const Answer right = post(answer(c));
  ASSERT_TRUE(right.response.cookie());
  const TokenCheck token = signer.verify(right.response.cookie()->token(), now);
  EXPECT_EQ(token.status, TokenStatus::Valid);
  EXPECT_EQ(token.claims.vid, vid);
  EXPECT_EQ(token.claims.appId, "APP");
  now += 1;
  EXPECT_EQ(post(answer(c)).decision, "challenge_stale");

  // Without challenges (the measurements' --no-challenge) a new session is
  // tokened at once, and a challenge answer is still checked.
  CollectorSettings settings;
  settings.challengeNewSessions = false;
  const CollectorService direct{signer, [this] { return now; }, settings};
  sid.clear();
  vid.clear();
  const Answer atOnce = post(newSession(), &direct);
  EXPECT_FALSE(atOnce.response.challenge());
  ASSERT_TRUE(atOnce.response.cookie() && atOnce.response.sid() && atOnce.response.vid());
  EXPECT_EQ(signer.verify(atOnce.response.cookie()->token(), now).claims.vid,
            *atOnce.response.vid());
  sid = *atOnce.response.sid();
  EXPECT_EQ(post(answer(QSChallenge("", "", "", "")), &direct).decision, "challenge_failed");
}

// The event log's "rejected" lines, which the end-to-end runs count, stand
// for every request the collector cannot read, and none of them crashes it.
TEST_F(CollectorServiceTest, UnreadableRequestsAreRefusedWith400) {
  const auto payloadOf = [](const std::string& json, const char* key = "APP") {
    return "payload=" + SHA256_CBC::encryptStringToBase64String(json, key) + "&appId=APP";
  };
  const std::string ok = payloadOf(R"([{"t":"QS315","d":{}}])");
  ASSERT_EQ(service.collect(ok, "").status, 200);
  std::string tooMany;
  for (std::size_t i = 0; i <= FormBody::kMaxFields; ++i) {
    tooMany += "&k" + std::to_string(i) + "=v";
  }
  const std::string bodies[] = {
      "",
      "payload",
      ok + "&novalue",
      ok + "&=value",
      ok + "&appId=APP",  // a field twice
      ok + "&" + std::string(FormBody::kMaxKeyLength + 1, 'k') + "=v",
      ok + tooMany,
      "payload=" + SHA256_CBC::encryptStringToBase64String("[{}]", "APP"),
      "payload=%%%&appId=APP",
      payloadOf(R"([{"t":"QS315","d":{}}])", "OTHER"),
      "payload=" + std::string(300000, 'A') + "&appId=APP",
      payloadOf("not json"),
      payloadOf(R"({"t":"QS315","d":{}})"),
      payloadOf("[]"),
      payloadOf("[1]"),
      payloadOf(R"([{"t":1,"d":{}}])"),
      payloadOf(R"([{"t":"QS315","d":[]}])"),
      payloadOf(R"([{"t":"QS315","d":{}},{"t":"QS315","d":{}}])"),
      payloadOf(std::string(100000, '[') + std::string(100000, ']')),
  };
  for (const std::string& b : bodies) {
    const HttpOutcome o = service.collect(b, "");
    EXPECT_EQ(o.status, 400) << b.substr(0, 80);
    EXPECT_EQ(o.event["event"], "rejected");
    EXPECT_FALSE(Value::parse(o.body).at("error").get<std::string>().empty());
  }
}

}  // namespace
}  // namespace qs::sandbox

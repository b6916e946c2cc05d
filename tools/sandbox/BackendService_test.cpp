#include "BackendService.h"

#include <gtest/gtest.h>

#include "BlockPage.h"
#include "quarrystone/QSBlockResponse.h"

namespace qs::sandbox {
namespace {

class BackendServiceTest : public ::testing::Test {
 protected:
  double now = 1'700'000'000;
  TokenSigner signer{"secret"};
  DeploymentSettings deployment = [] {
    DeploymentSettings d;
    d.collectorHostPattern = "{appId}.collector.localhost:9443";
    return d;
  }();
  BackendService backend{signer, [this] { return now; }, deployment};

  std::string token(const std::string& simulate = "") const {
    return "3:" + signer.sign({"APP", "v-1", static_cast<std::int64_t>(now) + 600, simulate});
  }
  // The block JSON of a 403, with its page as the library decodes it.
  static Value blockAnswer(const HttpOutcome& o, std::string& page) {
    EXPECT_EQ(o.status, 403);
    Value json = Value::parse(o.body);
    const QSBlockResponse parsed(json);
    EXPECT_EQ(parsed.type(),
              json["action"] == "block" ? QSBlockResponseTypeBlock : QSBlockResponseTypeCaptcha);
    page = parsed.pageHtml();
    EXPECT_NE(page.find("</html>"), std::string::npos);
    return json;
  }
};

TEST_F(BackendServiceTest, ValidTokenGetsTheOrders) {
  const HttpOutcome o = backend.orders({token(), "", false, "", ""});
  EXPECT_EQ(o.status, 200);
  EXPECT_FALSE(Value::parse(o.body).at("orders").empty());
  EXPECT_EQ(o.event["decision"], "allow");
  EXPECT_EQ(o.event["vid"], "v-1");
}

TEST_F(BackendServiceTest, MissingOrInvalidTokensGetTheCaptchaPage) {
  const std::string valid = token();
  std::string tampered = valid;
  tampered[5] = tampered[5] == 'A' ? 'B' : 'A';
  const std::optional<std::string> cases[] = {
      std::nullopt, "1", "", tampered, "2:" + valid.substr(2), valid.substr(2), "3:garbage"};
  for (const auto& authorization : cases) {
    std::string page;
    const Value json = blockAnswer(backend.orders({authorization, "", false, "", ""}), page);
    EXPECT_EQ(json["action"], "captcha") << authorization.value_or("(none)");
    EXPECT_NE(page.find(BlockPage::kCallbackPath), std::string::npos);
    EXPECT_NE(page.find("<button"), std::string::npos);
    EXPECT_NE(page.find("if (false)"), std::string::npos);  // waits for the user
  }

  now += 600;  // the token's expiry second
  std::string page;
  const HttpOutcome expired = backend.orders({valid, "", true, "", ""});
  const Value json = blockAnswer(expired, page);
  EXPECT_EQ(json["action"], "captcha");
  EXPECT_EQ(json["vid"], "v-1");
  EXPECT_EQ(json["appId"], "APP");
  EXPECT_EQ(json["collectorUrl"], "https://APP.collector.localhost:9443/api/v1/collector/mobile");
  EXPECT_EQ(json["uuid"].get<std::string>().size(), 36u);
  EXPECT_NE(page.find("if (true)"), std::string::npos);  // solves itself
  EXPECT_EQ(expired.event["reason"], "token expired");
}

TEST_F(BackendServiceTest, SimulatedBlocksAndCaptchasOverrideAValidToken) {
  std::string page;
  Value json = blockAnswer(backend.orders({token(), "block", false, "", ""}), page);
  EXPECT_EQ(json["action"], "block");
  EXPECT_EQ(page.find("<button"), std::string::npos);
  EXPECT_EQ(page.find(BlockPage::kCallbackPath), std::string::npos);
  EXPECT_NE(page.find(json["uuid"].get<std::string>()), std::string::npos);

  json = blockAnswer(backend.orders({token(), "captcha", false, "", ""}), page);
  EXPECT_EQ(json["action"], "captcha");

  // A token baked while the collector was asked to simulate.
  json = blockAnswer(backend.orders({token("block"), "", false, "", ""}), page);
  EXPECT_EQ(json["action"], "block");
}

TEST_F(BackendServiceTest, TestScenariosChallengeOnceAlwaysOrAnswerBadly) {
  const std::string first = token();
  now += 1;
  const std::string fresh = token();
  auto request = [](std::string authorization, std::string challenge, std::string key) {
    return BackendRequest{std::move(authorization), "", false, std::move(challenge),
                          std::move(key)};
  };
  std::string page;
  // "once": the first token of a case is challenged, every time it comes
  // back; a new token passes; another case starts afresh.
  EXPECT_EQ(blockAnswer(backend.orders(request(first, "once", "a")), page)["action"], "captcha");
  EXPECT_EQ(backend.orders(request(first, "once", "a")).status, 403);
  EXPECT_EQ(backend.orders(request(fresh, "once", "a")).status, 200);
  EXPECT_EQ(backend.orders(request(fresh, "once", "b")).status, 403);
  EXPECT_EQ(blockAnswer(backend.orders(request(fresh, "always", "")), page)["action"], "captcha");
  EXPECT_EQ(blockAnswer(backend.orders(request(fresh, "block", "")), page)["action"], "block");

  for (const char* bad : {"badjson", "badpage", "plain"}) {
    const HttpOutcome o = backend.orders(request(fresh, bad, "c"));
    EXPECT_EQ(o.status, 403) << bad;
    EXPECT_EQ(o.event["case"], "c");
    const Value json = Value::parse(o.body, nullptr, false);
    const bool service =
        !json.is_discarded() && QSBlockResponse(json).type() != QSBlockResponseTypeForeign;
    EXPECT_EQ(service, std::string(bad) == "badpage") << bad;
    if (service) {
      EXPECT_EQ(QSBlockResponse(json).pageHtml(), "");
    }
  }
}

}  // namespace
}  // namespace qs::sandbox

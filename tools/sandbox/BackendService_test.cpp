#include "BackendService.h"

#include <gtest/gtest.h>

#include "SandboxCodec.h"
#include "quarrystone/QSBlockResponse.h"

namespace qs::sandbox {
namespace {

// The backend's token check, which the library's runs only meet with good
// tokens: a missing, altered, foreign or expired one gets the captcha page
// (as the library decodes it), never the orders.
TEST(BackendServiceTest, OnlyAValidTokenGetsTheOrders) {
  double now = 1'700'000'000;
  const TokenSigner signer{"secret"};
  DeploymentSettings deployment;
  deployment.collectorHostPattern = "{appId}.collector.localhost:9443";
  const BackendService backend{signer, [&] { return now; }, deployment};
  const auto orders = [&](std::optional<std::string> authorization, bool autosolve = false) {
    return backend.orders({std::move(authorization), "", autosolve, "", ""});
  };
  const auto captchaPage = [](const HttpOutcome& o) {
    EXPECT_EQ(o.status, 403);
    const QSBlockResponse block(Value::parse(o.body));
    EXPECT_EQ(block.type(), QSBlockResponseTypeCaptcha) << o.body;
    return block.pageHtml();
  };

  const auto expiry = static_cast<std::int64_t>(now) + 600;
  const std::string valid = "3:" + signer.sign({"APP", "v-1", expiry, ""});
  const HttpOutcome allowed = orders(valid);
  EXPECT_EQ(allowed.status, 200);
  EXPECT_FALSE(Value::parse(allowed.body).at("orders").empty());
  EXPECT_EQ(allowed.event["vid"], "v-1");

  std::string tampered = valid;
  tampered[5] = tampered[5] == 'A' ? 'B' : 'A';
  const std::string forged =  // later claims under the old signature
      "3:" + SandboxCodec::base64UrlEncode(R"({"appId":"APP","vid":"v-1","exp":9999999999})") +
      valid.substr(valid.rfind('.'));
  const std::optional<std::string> refused[] = {
      std::nullopt,    "1",         "",
      tampered,        forged,      "2:" + valid.substr(2),
      valid.substr(2), "3:garbage", "3:" + TokenSigner("other").sign({"APP", "v-1", expiry, ""})};
  for (const auto& authorization : refused) {
    SCOPED_TRACE(authorization.value_or("(none)"));
    const std::string page = captchaPage(orders(authorization));
    EXPECT_NE(page.find("<button"), std::string::npos);
    EXPECT_NE(page.find("if (false)"), std::string::npos);  // waits for the user
  }

  now = static_cast<double>(expiry);  // the token's expiry second
  const HttpOutcome expired = orders(valid, true);
  EXPECT_NE(captchaPage(expired).find("if (true)"), std::string::npos);  // solves itself
  const Value json = Value::parse(expired.body);
  EXPECT_EQ(json["vid"], "v-1");
  EXPECT_EQ(json["collectorUrl"], "https://APP.collector.localhost:9443/api/v1/collector/mobile");
  EXPECT_EQ(expired.event["reason"], "token expired");
}

}  // namespace
}  // namespace qs::sandbox

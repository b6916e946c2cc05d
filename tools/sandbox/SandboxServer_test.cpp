#include "SandboxServer.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <thread>

#include "collector/CollectorResponse.h"
#include "crypto/SHA256_CBC.h"

namespace qs::sandbox {
namespace {

// The real server over loopback TLS, verified against the generated test CA.
class SandboxServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logPath = ::testing::TempDir() + "qs-sandbox-events-" + std::to_string(::getpid()) + ".jsonl";
    std::remove(logPath.c_str());
    SandboxConfig config;
    config.port = 0;
    config.certFile = std::string(QS_SANDBOX_CERT_DIR) + "/server.pem";
    config.keyFile = std::string(QS_SANDBOX_CERT_DIR) + "/server.key";
    config.logPath = logPath;
    config.quiet = true;
    server = std::make_unique<SandboxServer>(config);
    const auto error = server->bind();
    ASSERT_FALSE(error) << *error;
    serving = std::thread([this] { server->run(); });
  }
  void TearDown() override {
    server->stop();
    if (serving.joinable()) serving.join();
    std::remove(logPath.c_str());
  }
  std::unique_ptr<httplib::SSLClient> client(bool trustTestCa = true) const {
    auto c = std::make_unique<httplib::SSLClient>("127.0.0.1", server->port());
    if (trustTestCa) c->set_ca_cert_path((std::string(QS_SANDBOX_CERT_DIR) + "/ca.pem").c_str());
    c->enable_server_certificate_verification(true);
    c->set_connection_timeout(5);
    c->set_read_timeout(5);
    return c;
  }
  static std::string form(const Value& activity, const std::string& ids = "") {
    return "payload=" +
           SHA256_CBC::encryptStringToBase64String(Value::array({activity}).dump(), "APP") + ids +
           "&appId=APP";
  }
  std::vector<Value> events() const {
    std::vector<Value> out;
    std::ifstream in(logPath);
    for (std::string line; std::getline(in, line);) out.push_back(Value::parse(line));
    return out;
  }

  std::string logPath;
  std::unique_ptr<SandboxServer> server;
  std::thread serving;
};

TEST_F(SandboxServerTest, ChallengeTokenAndOrdersOverTls) {
  const auto owner = client();
  auto& c = *owner;
  const char* type = "application/x-www-form-urlencoded; charset=utf-8";
  auto res = c.Post("/api/v1/collector/mobile",
                    form({{"t", "QS315"}, {"d", {{"QS330", "new_session"}}}}), type);
  ASSERT_TRUE(res) << httplib::to_string(res.error());
  ASSERT_EQ(res->status, 200);
  std::string error;
  const auto first =
      CollectorResponse::initWithCollectorResponse(Value::parse(res->body), 0, &error);
  ASSERT_TRUE(first && first->challenge()) << res->body;
  const QSChallenge& challenge = *first->challenge();
  const std::string& uuid = challenge.uuid();
  const Value answer = {{"t", "QS329"},
                        {"d",
                         {{"QS259", challenge.timestamp().value_or(Value())},
                          {"QS256", challenge.signedHash()},
                          {"QS257", std::string(uuid.rbegin(), uuid.rend())}}}};
  const std::string ids = "&sid=" + first->sid().value_or("") + "&vid=" + first->vid().value_or("");
  res = c.Post("/api/v1/collector/mobile", form(answer, ids), type);
  ASSERT_TRUE(res);
  const auto second =
      CollectorResponse::initWithCollectorResponse(Value::parse(res->body), 0, &error);
  ASSERT_TRUE(second && second->cookie()) << res->body;

  res = c.Get("/api/orders", {{"X-QS-AUTHORIZATION", "3:" + second->cookie()->token()}});
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  res = c.Get("/api/orders", {{"X-QS-AUTHORIZATION", "1"}});
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 403);
  EXPECT_EQ(Value::parse(res->body).at("action"), "captcha");

  // "+" in r stays a plus: the report's own text, not an escaped space.
  res = c.Get("/api/v1/collector/clientError?r=%7B%22message%22:%22a+b%22%7D");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);

  // Without the test CA the certificate must not verify.
  EXPECT_FALSE(client(false)->Get("/sandbox/health"));

  const auto logged = events();
  ASSERT_EQ(logged.size(), 5u);
  EXPECT_EQ(logged[0]["decision"], "new_session");
  EXPECT_EQ(logged[1]["decision"], "challenge_passed");
  // Each collector request names the client end of its connection.
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(logged[i].value("peer", "").rfind("127.0.0.1:", 0), 0u) << logged[i].dump();
  }
  EXPECT_EQ(logged[2]["decision"], "allow");
  EXPECT_EQ(logged[3]["decision"], "captcha");
  EXPECT_EQ(logged[4]["report"]["message"], "a+b");
}

TEST_F(SandboxServerTest, ModeSwitchesAtRunTime) {
  const auto owner = client();
  auto& c = *owner;
  auto res = c.Post("/sandbox/mode", "sideways\n", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400);

  res = c.Post("/sandbox/mode", "garbage\n", "text/plain");
  ASSERT_TRUE(res);
  const Value idle = {{"t", "QS325"}, {"d", Value::object()}};
  res = c.Post("/api/v1/collector/mobile", form(idle), "application/x-www-form-urlencoded");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->body.find('{'), std::string::npos);

  res = c.Post("/sandbox/mode", "down", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_FALSE(c.Post("/api/v1/collector/mobile", form(idle), "application/x-www-form-urlencoded"));
  res = c.Get("/sandbox/mode");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, "down\n");
}

}  // namespace
}  // namespace qs::sandbox

#include "SandboxServer.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <thread>

#include "crypto/SHA256_CBC.h"

namespace qs::sandbox {
namespace {

// The real server over loopback TLS, for what the measurements and the
// library's runs take from its event log: each collector request names the
// client end of its connection (qs-measure counts connections by it), and a
// "+" in a client error report stays a plus, the report's own text.
TEST(SandboxServerTest, EventLogNamesThePeerAndKeepsThePlusOfReports) {
  const std::string certs = QS_SANDBOX_CERT_DIR;
  const std::string logPath =
      ::testing::TempDir() + "qs-sandbox-events-" + std::to_string(::getpid()) + ".jsonl";
  std::remove(logPath.c_str());
  SandboxConfig config;
  config.port = 0;
  config.certFile = certs + "/server.pem";
  config.keyFile = certs + "/server.key";
  config.logPath = logPath;
  config.quiet = true;
  SandboxServer server(config);
  const auto error = server.bind();
  ASSERT_FALSE(error) << *error;
  std::thread serving([&] { server.run(); });

  httplib::SSLClient client("127.0.0.1", server.port());
  client.set_ca_cert_path((certs + "/ca.pem").c_str());
  client.enable_server_certificate_verification(true);
  client.set_read_timeout(5);
  const std::string payload = SHA256_CBC::encryptStringToBase64String(
      R"([{"t":"QS315","d":{"QS330":"new_session"}}])", "APP");
  const auto posted = client.Post("/api/v1/collector/mobile", "payload=" + payload + "&appId=APP",
                                  "application/x-www-form-urlencoded; charset=utf-8");
  ASSERT_TRUE(posted) << httplib::to_string(posted.error());
  EXPECT_EQ(posted->status, 200);
  const auto reported = client.Get("/api/v1/collector/clientError?r=%7B%22message%22:%22a+b%22%7D");
  ASSERT_TRUE(reported);
  EXPECT_EQ(reported->status, 200);
  server.stop();
  serving.join();

  std::vector<Value> events;
  std::ifstream in(logPath);
  for (std::string line; std::getline(in, line);) events.push_back(Value::parse(line));
  std::remove(logPath.c_str());
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0]["decision"], "new_session");
  EXPECT_EQ(events[0].value("peer", "").rfind("127.0.0.1:", 0), 0u) << events[0].dump();
  EXPECT_EQ(events[1]["report"]["message"], "a+b");
}

}  // namespace
}  // namespace qs::sandbox

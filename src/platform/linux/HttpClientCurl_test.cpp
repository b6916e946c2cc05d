#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FakePlatform.h"
#include "network/QSGetOperation.h"
#include "network/QSNetworkManager.h"
#include "network/QSPostOperation.h"
#include "quarrystone/Constants.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

using namespace std::chrono_literals;

struct Outcome {
  std::optional<std::string> body;
  std::optional<HttpResponse> response;
  std::optional<HttpError> error;
  std::string activityType;
};

// Collects completions from whatever thread delivers them.
class Inbox : public QSPostOperationDelegate, public QSGetOperationDelegate {
 public:
  HttpClient::Completion completion() {
    return [this](auto body, auto response, auto error) {
      add({std::move(body), std::move(response), std::move(error), ""});
    };
  }
  void taskCompletedWith(const std::optional<std::string>& body, const std::string& activityType,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    add({body, response, error, activityType});
  }
  void taskCompletedWith(const std::optional<std::string>& body,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    add({body, response, error, ""});
  }
  // Bounded wait for `count` completions in all; returns them.
  std::vector<Outcome> waitFor(std::size_t count, std::chrono::seconds limit = 15s) {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, limit, [&] { return got_.size() >= count; });
    return got_;
  }

 private:
  void add(Outcome outcome) {
    std::lock_guard lock(mutex_);
    got_.push_back(std::move(outcome));
    cv_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Outcome> got_;
};

// An httplib server on a loopback port, served from a thread of its own.
class Loopback {
 public:
  explicit Loopback(std::unique_ptr<httplib::Server> server = std::make_unique<httplib::Server>())
      : server_(std::move(server)) {}
  ~Loopback() {
    server_->stop();
    if (thread_.joinable()) thread_.join();
  }
  httplib::Server& server() { return *server_; }
  int start() {
    port_ = server_->bind_to_any_port("127.0.0.1");  // listening from here on
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    return port_;
  }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
};

// A loopback socket that is bound and, when `listening`, accepts connections
// into its backlog but never answers; otherwise connections are refused.
class SilentPort {
 public:
  explicit SilentPort(bool listening) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(fd_, generic, size), 0);
    EXPECT_EQ(getsockname(fd_, generic, &size), 0);
    if (listening) {
      EXPECT_EQ(listen(fd_, 16), 0);
    }
    port_ = ntohs(address.sin_port);
  }
  ~SilentPort() { close(fd_); }
  int port() const { return port_; }

 private:
  int fd_;
  int port_ = 0;
};

class HttpClientCurlTest : public ::testing::Test {
 protected:
  // The core's operations on the fake platform, with the real HTTP client.
  void useCurl(const std::string& caFile = "") {
    fake.http.reset();
    platform.http = makeCurlHttpClient(caFile, fake.log);
  }
  void post(const std::string& url, std::string body, std::string type,
            std::optional<HeaderMap> headers = std::nullopt) {
    auto op = std::make_shared<QSPostOperation>(*platform.http, manager.userAgent(), url,
                                                std::move(body), std::move(type));
    op->setHttpHeaders(std::move(headers));
    op->setDelegate(inbox);
    manager.addNetworkOperation(op);
  }
  // Joins the network thread: every completion has then run to its end, and
  // the client's connections are closed before the test's server stops.
  void stopClient() { platform.http.reset(); }

  fake::FakePlatform fake;
  Platform platform = fake.platform();
  QSNetworkManager manager{platform};
  std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
};

TEST_F(HttpClientCurlTest, ServerSeesTheExactRequestsOnOneConnection) {
  useCurl();
  std::mutex mutex;
  std::vector<httplib::Request> seen;
  Loopback loopback;
  auto record = [&](const httplib::Request& request, httplib::Response& response) {
    std::lock_guard lock(mutex);
    seen.push_back(request);
    if (request.method == "POST") {
      response.status = 500;
      response.set_content(R"({"error":"x"})", "application/json");
    } else {
      response.set_content("fine", "text/plain");
    }
  };
  loopback.server().Post("/api/v1/collector/mobile", record);
  loopback.server().Get("/e", record);
  const std::string origin = "http://app.collector.localhost:" + std::to_string(loopback.start());

  post(origin + "/api/v1/collector/mobile", "p=\xC3\xA9+/=end", "QS315", HeaderMap{{"X-A", "1"}});
  auto got = inbox->waitFor(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_FALSE(got[0].error.has_value());  // an HTTP error status is an answer
  ASSERT_TRUE(got[0].response.has_value());
  EXPECT_EQ(got[0].response->statusCode, 500);
  EXPECT_EQ(got[0].body, R"({"error":"x"})");
  EXPECT_EQ(got[0].activityType, "QS315");

  auto get = std::make_shared<QSGetOperation>(*platform.http, "Agent/1", origin + "/e?r=abc",
                                              std::nullopt, std::nullopt);
  get->setDelegate(inbox);
  manager.addNetworkOperation(get);
  ASSERT_EQ(inbox->waitFor(2).size(), 2u);
  platform.http->send(HttpRequest{"GET", origin + "/e", {}, std::nullopt, 5.0},
                      inbox->completion());
  got = inbox->waitFor(3);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[2].body, "fine");
  stopClient();
  EXPECT_TRUE(get->isFinished());

  std::lock_guard lock(mutex);
  ASSERT_EQ(seen.size(), 3u);
  const auto& p = seen[0];
  EXPECT_EQ(p.body, "p=\xC3\xA9+/=end");
  EXPECT_EQ(p.get_header_value("Content-Length"), "10");
  EXPECT_EQ(p.get_header_value_count("Content-Length"), 1u);
  EXPECT_EQ(p.get_header_value("Content-Type"), kFormSubmitContentType);
  EXPECT_EQ(p.get_header_value("User-Agent"), manager.userAgent());
  EXPECT_EQ(p.get_header_value("X-A"), "1");
  EXPECT_EQ(p.get_header_value("Cache-Control"), "no-cache");
  EXPECT_FALSE(p.has_header("Expect"));

  const auto& g = seen[1];
  EXPECT_EQ(g.method, "GET");
  EXPECT_EQ(g.get_param_value("r"), "abc");
  EXPECT_EQ(g.get_header_value("User-Agent"), "Agent/1");
  EXPECT_FALSE(g.has_header("Content-Type"));
  EXPECT_FALSE(g.has_header("Content-Length"));
  EXPECT_TRUE(g.body.empty());

  // Consecutive requests to one origin reuse the first connection.
  EXPECT_EQ(seen[1].remote_port, seen[0].remote_port);
  EXPECT_EQ(seen[2].remote_port, seen[0].remote_port);
}

TEST_F(HttpClientCurlTest, TransportFailuresBecomeErrors) {
  useCurl();
  SilentPort refusing(false);
  SilentPort silent(true);
  const auto started = std::chrono::steady_clock::now();
  post("http://127.0.0.1:" + std::to_string(silent.port()) + "/", "a=b", "QS325");
  auto send = [&](std::string url) {
    platform.http->send(HttpRequest{"GET", std::move(url), {}, std::nullopt, 5.0},
                        inbox->completion());
  };
  send("http://127.0.0.1:" + std::to_string(refusing.port()) + "/");
  send("http://exa mple.com/");
  send("ftp://127.0.0.1/");
  send("");

  auto got = inbox->waitFor(5);
  const auto elapsed = std::chrono::steady_clock::now() - started;
  ASSERT_EQ(got.size(), 5u);
  std::multiset<HttpError::Code> quick;
  for (std::size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(got[i].error.has_value());
    EXPECT_FALSE(got[i].response.has_value());
    quick.insert(got[i].error->code);
  }
  EXPECT_EQ(quick,
            (std::multiset<HttpError::Code>{HttpError::Code::CannotConnect, HttpError::Code::BadURL,
                                            HttpError::Code::BadURL, HttpError::Code::BadURL}));

  // The server that never answers is given up on after the 5 s limit.
  const Outcome& late = got[4];
  EXPECT_EQ(late.activityType, "QS325");
  ASSERT_TRUE(late.error.has_value());
  EXPECT_EQ(late.error->code, HttpError::Code::TimedOut);
  EXPECT_EQ(late.error->localizedDescription, "The request timed out.");
  EXPECT_GE(elapsed, 4500ms);
  stopClient();
  EXPECT_EQ(manager.requestsQueue().operationCount(), 0u);
}

TEST_F(HttpClientCurlTest, DestructionCancelsTransfersInFlight) {
  SilentPort silent(true);
  auto client = makeCurlHttpClient("", fake.log);
  HttpClient* raw = client.get();
  const HttpRequest request{
      "GET", "http://127.0.0.1:" + std::to_string(silent.port()) + "/", {}, std::nullopt, 5.0};
  // This completion sends again while the client shuts down; that is cancelled too.
  client->send(request, [raw, request, sink = inbox->completion()](auto b, auto r, auto e) {
    raw->send(request, sink);
    sink(std::move(b), std::move(r), std::move(e));
  });
  client.reset();  // returns once every completion has run

  auto got = inbox->waitFor(2, 0s);
  ASSERT_EQ(got.size(), 2u);
  for (const auto& outcome : got) {
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->code, HttpError::Code::Cancelled);
  }
}

TEST_F(HttpClientCurlTest, ManyOperationsInFlightAllComplete) {
  useCurl();
  constexpr std::size_t kCount = 24;
  std::mutex mutex;
  std::condition_variable allIn;
  std::size_t arrived = 0;
  Loopback loopback;
  loopback.server().new_task_queue = [] { return new httplib::ThreadPool(kCount + 4); };
  // Nobody is answered before every request has arrived: they must all be in
  // flight at once.
  loopback.server().Post("/c", [&](const httplib::Request& request, httplib::Response& response) {
    std::unique_lock lock(mutex);
    ++arrived;
    allIn.notify_all();
    allIn.wait_for(lock, 4s, [&] { return arrived >= kCount; });
    response.set_content(request.body, "text/plain");
  });
  const std::string url = "http://127.0.0.1:" + std::to_string(loopback.start()) + "/c";
  for (std::size_t i = 0; i < kCount; ++i) post(url, "n=" + std::to_string(i), std::to_string(i));

  auto got = inbox->waitFor(kCount);
  ASSERT_EQ(got.size(), kCount);
  for (const auto& outcome : got) {
    ASSERT_FALSE(outcome.error.has_value()) << outcome.error->localizedDescription;
    EXPECT_EQ(outcome.body, "n=" + outcome.activityType);
  }
  stopClient();
  EXPECT_EQ(manager.requestsQueue().operationCount(), 0u);
}

// A throw-away authority and a "localhost" certificate it signed.
class TestPki {
 public:
  TestPki() {
    caKey_ = EVP_EC_gen("P-256");
    key_ = EVP_EC_gen("P-256");
    ca_ = makeCert(caKey_, nullptr, caKey_, "Test Authority",
                   {{NID_basic_constraints, "critical,CA:TRUE"},
                    {NID_key_usage, "critical,keyCertSign,cRLSign"},
                    {NID_subject_key_identifier, "hash"}});
    leaf_ = makeCert(key_, ca_, caKey_, "localhost",
                     {{NID_basic_constraints, "CA:FALSE"},
                      {NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1"},
                      {NID_ext_key_usage, "serverAuth"}});
    char pattern[] = "/tmp/qs-pki-XXXXXX";
    dir_ = mkdtemp(pattern);
    caFile_ = dir_ + "/ca.pem";
    FILE* out = std::fopen(caFile_.c_str(), "w");
    PEM_write_X509(out, ca_);
    std::fclose(out);
  }
  ~TestPki() {
    X509_free(ca_);
    X509_free(leaf_);
    EVP_PKEY_free(caKey_);
    EVP_PKEY_free(key_);
    std::filesystem::remove_all(dir_);
  }
  const std::string& caFile() const { return caFile_; }
  std::unique_ptr<httplib::Server> server() const {
    return std::make_unique<httplib::SSLServer>(leaf_, key_);
  }

 private:
  static X509* makeCert(EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey, const char* name,
                        std::vector<std::pair<int, const char*>> extensions) {
    static long serial = 1;
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 86400);
    X509_set_pubkey(cert, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(issuer ? issuer : cert));
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer ? issuer : cert, cert, nullptr, nullptr, 0);
    for (const auto& [nid, value] : extensions) {
      X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
      X509_add_ext(cert, extension, -1);
      X509_EXTENSION_free(extension);
    }
    X509_sign(cert, issuerKey, EVP_sha256());
    return cert;
  }

  EVP_PKEY* caKey_ = nullptr;
  EVP_PKEY* key_ = nullptr;
  X509* ca_ = nullptr;
  X509* leaf_ = nullptr;
  std::string dir_;
  std::string caFile_;
};

TEST_F(HttpClientCurlTest, TlsTrustsTheGivenAuthorityAndVerifiesPeers) {
  TestPki pki;
  Loopback loopback(pki.server());
  loopback.server().Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("secure", "text/plain");
  });
  const std::string url = "https://localhost:" + std::to_string(loopback.start()) + "/";
  auto get = [&](HttpClient& client) {
    client.send(HttpRequest{"GET", url, {}, std::nullopt, 5.0}, inbox->completion());
  };

  auto trusting = makeCurlHttpClient(pki.caFile(), fake.log);
  get(*trusting);
  auto got = inbox->waitFor(1);
  ASSERT_EQ(got.size(), 1u);
  ASSERT_FALSE(got[0].error.has_value()) << got[0].error->localizedDescription;
  EXPECT_EQ(got[0].body, "secure");

  auto systemOnly = makeCurlHttpClient("", fake.log);
  get(*systemOnly);
  auto unreadable = makeCurlHttpClient(pki.caFile() + ".missing", fake.log);
  get(*unreadable);
  EXPECT_TRUE(fake.log->contains("cannot read trust file"));
  got = inbox->waitFor(3);
  ASSERT_EQ(got.size(), 3u);
  for (std::size_t i = 1; i < 3; ++i) {
    ASSERT_TRUE(got[i].error.has_value());
    EXPECT_EQ(got[i].error->code, HttpError::Code::SecureConnectionFailed);
    EXPECT_EQ(got[i].error->localizedDescription,
              "An SSL error has occurred and a secure connection to the server cannot be made.");
  }
}

}  // namespace
}  // namespace qs

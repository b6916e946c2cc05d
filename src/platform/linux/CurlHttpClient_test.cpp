// The libcurl client against real loopback servers: httplib for well-formed
// exchanges, raw sockets for servers that misbehave, TLS servers with faults.
#include <httplib.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FakePlatform.h"
#include "SandboxProcess.h"
#include "TlsFaultServer.h"
#include "network/QSGetOperation.h"
#include "network/QSNetworkManager.h"
#include "network/QSPostOperation.h"
#include "quarrystone/Constants.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs::testing {
namespace {

using namespace std::chrono_literals;
using Code = HttpError::Code;
using Fault = TlsFaultServer::Fault;

// The test authority and the server certificate scripts/make-certs writes.
const std::string kCerts = QS_TEST_CERT_DIR;

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
    return [this](auto body, auto response, auto error) { add({body, response, error, ""}); };
  }
  void taskCompletedWith(const std::optional<std::string>& body, const std::string& type,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    add({body, response, error, type});
  }
  void taskCompletedWith(const std::optional<std::string>& body,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    add({body, response, error, ""});
  }
  // Waits, bounded, for `count` completions in all.
  std::vector<Outcome> waitFor(std::size_t count, std::chrono::seconds limit = 20s) {
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

// An httplib server on a loopback port, listening once start() returns; over
// TLS with the make-certs server certificate when `tls`.
class Loopback {
 public:
  explicit Loopback(bool tls = false)
      : server_(tls ? std::make_unique<httplib::SSLServer>((kCerts + "/server.pem").c_str(),
                                                           (kCerts + "/server.key").c_str())
                    : std::make_unique<httplib::Server>()) {}
  ~Loopback() { stop(); }
  // Joins the server's threads. The packaged server's own socket closes are
  // hidden from ThreadSanitizer, so a test that opens files after a TLS
  // exchange stops the server first; otherwise a reused descriptor number
  // looks like a race with the server's last read.
  void stop() {
    server_->stop();
    if (thread_.joinable()) thread_.join();
  }
  httplib::Server& server() { return *server_; }
  std::string start() {
    const int port = server_->bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    return std::to_string(port);
  }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
};

// One whole request (head and Content-Length body) from `fd`, or nullopt when
// the peer closed first. `pending` carries bytes read past it.
std::optional<std::string> readRequest(int fd, std::string& pending) {
  std::size_t end = std::string::npos, length = 0;
  for (;;) {
    if (end == std::string::npos && (end = pending.find("\r\n\r\n")) != std::string::npos) {
      end += 4;
      std::string head = pending.substr(0, end);
      for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (auto at = head.find("content-length:"); at != std::string::npos) {
        length = std::stoul(head.substr(at + 15));
      }
    }
    if (end != std::string::npos && pending.size() >= end + length) {
      std::string request = pending.substr(0, end + length);
      pending.erase(0, end + length);
      return request;
    }
    char buffer[4096];
    const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) return std::nullopt;
    pending.append(buffer, static_cast<std::size_t>(got));
  }
}

bool sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

HttpRequest get(std::string url) { return HttpRequest{"GET", std::move(url), {}, {}, 5.0}; }
HttpRequest postRequest(std::string url, std::string body) {
  return HttpRequest{"POST", std::move(url), {}, std::move(body), 5.0};
}

// The core's operations on the fake platform, sending through libcurl.
class HttpClientCurlTest : public ::testing::Test {
 protected:
  HttpClientCurlTest() { platform.http = makeCurlHttpClient("", fake.log); }
  void post(const std::string& url, std::string body, std::string type,
            std::optional<HeaderMap> headers = std::nullopt) {
    auto op = std::make_shared<QSPostOperation>(*platform.http, manager.userAgent(), url,
                                                std::move(body), std::move(type));
    op->setHttpHeaders(std::move(headers));
    op->setDelegate(inbox);
    manager.addNetworkOperation(op);
  }
  // Sends `requests` one after the other through `client`, each once the
  // one before has completed; returns every completion.
  std::vector<Outcome> sendInTurn(HttpClient& client, const std::vector<HttpRequest>& requests) {
    for (std::size_t i = 0; i < requests.size(); ++i) {
      client.send(requests[i], inbox->completion());
      if (inbox->waitFor(i + 1).size() != i + 1) ADD_FAILURE() << "no completion for " << i;
    }
    return inbox->waitFor(requests.size());
  }
  // Waits until the network loop has wound the client down: every completion
  // has then run to its end, and the client's connections close before the
  // test's server stops.
  void stopClient() { platform.http.reset(); }

  fake::FakePlatform fake;
  Platform platform = fake.platform();
  QSNetworkManager manager{platform};
  std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
};

TEST_F(HttpClientCurlTest, ServerSeesTheExactRequestsOnOneConnection) {
  std::mutex mutex;
  std::vector<httplib::Request> seen;
  Loopback loopback;
  auto record = [&](const httplib::Request& request, httplib::Response& response) {
    std::lock_guard lock(mutex);
    seen.push_back(request);
    response.status = request.method == "POST" ? 500 : 200;
    response.set_content(R"({"error":"x"})", "application/json");
  };
  loopback.server().Post("/api/v1/collector/mobile", record);
  loopback.server().Get("/e", record);
  // Names under "localhost" reach loopback without any resolver entry.
  const std::string origin = "http://app.collector.localhost:" + loopback.start();

  post(origin + "/api/v1/collector/mobile", "p=\xC3\xA9+/=end", "QS315", HeaderMap{{"X-A", "1"}});
  auto got = inbox->waitFor(1);
  ASSERT_EQ(got.size(), 1u);
  ASSERT_FALSE(got[0].error.has_value());  // an HTTP error status is an answer
  EXPECT_EQ(got[0].response->statusCode, 500);
  EXPECT_EQ(got[0].body, R"({"error":"x"})");
  EXPECT_EQ(got[0].activityType, "QS315");

  auto op = std::make_shared<QSGetOperation>(*platform.http, "Agent/1", origin + "/e?r=abc",
                                             std::nullopt, std::nullopt);
  op->setDelegate(inbox);
  manager.addNetworkOperation(op);
  ASSERT_EQ(inbox->waitFor(2).size(), 2u);
  stopClient();
  EXPECT_TRUE(op->isFinished());

  std::lock_guard lock(mutex);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].body, "p=\xC3\xA9+/=end");
  EXPECT_EQ(seen[0].get_header_value("Content-Length"), "10");
  EXPECT_EQ(seen[0].get_header_value_count("Content-Length"), 1u);
  EXPECT_EQ(seen[0].get_header_value("Content-Type"), kFormSubmitContentType);
  EXPECT_EQ(seen[0].get_header_value("User-Agent"), manager.userAgent());
  EXPECT_EQ(seen[0].get_header_value("X-A"), "1");
  EXPECT_EQ(seen[0].get_header_value("Cache-Control"), "no-cache");
  EXPECT_EQ(seen[1].get_param_value("r"), "abc");
  EXPECT_EQ(seen[1].get_header_value("User-Agent"), "Agent/1");
  EXPECT_FALSE(seen[1].has_header("Content-Type"));
  EXPECT_FALSE(seen[1].has_header("Content-Length"));
  EXPECT_EQ(seen[1].remote_port, seen[0].remote_port);  // one connection for both
}

TEST_F(HttpClientCurlTest, TransportFailuresBecomeErrors) {
  LoopbackListener refusing(nullptr, false), silent;
  const auto started = std::chrono::steady_clock::now();
  post(silent.url(), "a=b", "QS325");
  for (const std::string& url : {refusing.url(), std::string("http://exa mple.com/"),
                                 std::string("ftp://127.0.0.1/"), std::string()}) {
    platform.http->send(get(url), inbox->completion());
  }
  auto got = inbox->waitFor(5);
  const auto elapsed = std::chrono::steady_clock::now() - started;
  ASSERT_EQ(got.size(), 5u);
  std::multiset<Code> quick;
  for (std::size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(got[i].error.has_value());
    EXPECT_FALSE(got[i].response.has_value());
    quick.insert(got[i].error->code);
  }
  EXPECT_EQ(quick,
            (std::multiset<Code>{Code::CannotConnect, Code::BadURL, Code::BadURL, Code::BadURL}));

  // The server that never answers is given up on at the 5 s limit.
  EXPECT_EQ(got[4].activityType, "QS325");
  ASSERT_TRUE(got[4].error.has_value());
  EXPECT_EQ(got[4].error->code, Code::TimedOut);
  EXPECT_EQ(got[4].error->localizedDescription, "The request timed out.");
  EXPECT_GE(elapsed, 4500ms);
  stopClient();
  EXPECT_EQ(manager.requestsQueue().operationCount(), 0u);
}

TEST_F(HttpClientCurlTest, DestructionCancelsTransfersInFlight) {
  LoopbackListener silent;
  HttpClient* raw = platform.http.get();
  // This completion sends again while the client shuts down; that is cancelled too.
  raw->send(get(silent.url()), [raw, url = silent.url(), sink = inbox->completion()](auto... args) {
    raw->send(get(url), sink);
    sink(args...);
  });
  stopClient();  // returns once every completion has run
  auto got = inbox->waitFor(2, 0s);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].error.value().code, Code::Cancelled);
  EXPECT_EQ(got[1].error.value().code, Code::Cancelled);

  // A completion may drop the last reference to its client; the client then
  // winds down on its network loop after the completion returns.
  LoopbackListener refusing(nullptr, false);
  auto holder = std::make_shared<std::shared_ptr<HttpClient>>(makeCurlHttpClient("", fake.log));
  std::promise<std::optional<HttpError>> dropped;
  (*holder)->send(get(refusing.url()), [holder, &dropped](auto, auto, auto error) {
    holder->reset();
    dropped.set_value(error);
  });
  auto error = dropped.get_future();
  ASSERT_EQ(error.wait_for(15s), std::future_status::ready);
  EXPECT_EQ(error.get().value().code, Code::CannotConnect);
}

TEST_F(HttpClientCurlTest, ManyOperationsInFlightAllComplete) {
  constexpr std::size_t kCount = 24;
  std::mutex mutex;
  std::condition_variable allIn;
  std::size_t arrived = 0;
  Loopback loopback;
  loopback.server().new_task_queue = [] { return new httplib::ThreadPool(kCount + 4); };
  // Nobody is answered before every request has arrived: all are in flight at once.
  loopback.server().Post("/c", [&](const httplib::Request& request, httplib::Response& response) {
    std::unique_lock lock(mutex);
    ++arrived;
    allIn.notify_all();
    allIn.wait_for(lock, 4s, [&] { return arrived >= kCount; });
    response.set_content(request.body, "text/plain");
  });
  const std::string url = "http://127.0.0.1:" + loopback.start() + "/c";
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

// Whether a client that admits TLS 1.0 completes a handshake on `port`, and
// at which version: shows the TLS 1.0 server really serves that version.
std::string tls10Handshake(int port) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_security_level(ctx, 0);
  SSL_CTX_set_cipher_list(ctx, "DEFAULT:@SECLEVEL=0");
  SSL_CTX_set_min_proto_version(ctx, TLS1_VERSION);
  BIO* connection = BIO_new_ssl_connect(ctx);
  BIO_set_conn_hostname(connection, ("127.0.0.1:" + std::to_string(port)).c_str());
  SSL* ssl = nullptr;
  BIO_get_ssl(connection, &ssl);
  const std::string version = BIO_do_handshake(connection) == 1 ? SSL_get_version(ssl) : "";
  BIO_free_all(connection);
  SSL_CTX_free(ctx);
  return version;
}

// A request reaches only a verified peer. Without the server's authority
// (none given, or its file unreadable) and for every TLS fault, the request
// ends as a secure-connection error with nothing delivered and no request
// byte sent. (A refused certificate may still see the handshake finish: the
// peer is checked right after it.)
TEST_F(HttpClientCurlTest, TlsReachesOnlyAVerifiedPeer) {
  TempDir dir;
  const std::string missing = (dir.path() / "missing.pem").string();
  const struct {
    Fault fault;
    const char* trust;  // null: the server's own authority
  } cases[] = {{Fault::Good, nullptr},         {Fault::Good, ""},
               {Fault::Good, missing.c_str()}, {Fault::Expired, nullptr},
               {Fault::WrongHost, nullptr},    {Fault::UnknownAuthority, nullptr},
               {Fault::Tls10Only, nullptr},    {Fault::CloseInHandshake, nullptr}};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(fmt::format("fault {} trust '{}'", static_cast<int>(cases[i].fault),
                             cases[i].trust ? cases[i].trust : "own"));
    TlsFaultServer server(cases[i].fault, dir.path());
    auto client = makeCurlHttpClient(cases[i].trust ? cases[i].trust : server.caFile(), fake.log);
    client->send(get(server.url()), inbox->completion());
    auto got = inbox->waitFor(i + 1);
    client.reset();  // joins the client's loop: no completion runs after this
    ASSERT_EQ(got.size(), i + 1);
    if (i == 0) {
      ASSERT_FALSE(got[i].error.has_value()) << got[i].error->localizedDescription;
      EXPECT_EQ(got[i].body, "ok");
      EXPECT_EQ(server.answered(), 1);
      continue;
    }
    ASSERT_TRUE(got[i].error.has_value());
    EXPECT_EQ(got[i].error->code, Code::SecureConnectionFailed);
    EXPECT_EQ(got[i].error->localizedDescription,
              "An SSL error has occurred and a secure connection to the server cannot be made.");
    EXPECT_FALSE(got[i].body.has_value());
    EXPECT_FALSE(got[i].response.has_value());
    EXPECT_GE(server.connections(), 1);
    EXPECT_EQ(server.requests(), 0) << "a request went to a peer that was not verified";
    if (cases[i].fault == Fault::Tls10Only) {
      EXPECT_EQ(tls10Handshake(server.port()), "TLSv1");
    }
  }
  EXPECT_TRUE(fake.log->contains("cannot read trust file"));
}

// A server closes idle kept-alive connections after its own keep-alive time.
// A request later on must go out on a new connection: written into the
// closed one it would fail, since the client never resends it (the renewal
// a token's life after start-up met exactly this).
TEST_F(HttpClientCurlTest, AnIdleConnectionIsNotReusedOnceTheServerMayHaveClosedIt) {
  Loopback loopback(/*tls=*/true);
  loopback.server().set_keep_alive_timeout(1);
  std::mutex mutex;
  std::vector<int> ports;  // guarded by mutex
  loopback.server().Get("/", [&](const httplib::Request& request, httplib::Response& response) {
    std::lock_guard lock(mutex);
    ports.push_back(request.remote_port);
    response.set_content("ok", "text/plain");
  });
  const std::string url = "https://localhost:" + loopback.start() + "/";
  auto client = makeCurlHttpClient(kCerts + "/ca.pem", fake.log);
  client->send(get(url), inbox->completion());
  ASSERT_EQ(inbox->waitFor(1).size(), 1u);
  std::this_thread::sleep_for(3s);  // past the server's keep-alive time and the client's
  client->send(get(url), inbox->completion());
  auto got = inbox->waitFor(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_FALSE(got[1].error.has_value()) << got[1].error->localizedDescription;
  EXPECT_EQ(got[1].body, "ok");
  client.reset();
  loopback.stop();
  std::lock_guard lock(mutex);
  ASSERT_EQ(ports.size(), 2u);
  EXPECT_NE(ports[0], ports[1]);
}

// A kept-alive connection that closes after reading a request, unanswered:
// libcurl would send the request again on a new connection. The client fails
// it instead, whatever the method, so the server sees every request once.
TEST_F(HttpClientCurlTest, ARequestIsNeverSentTwice) {
  std::mutex mutex;
  std::vector<std::pair<std::size_t, std::string>> seen;  // connection; request line and body
  LoopbackListener server([&](int fd, std::size_t connection) {
    std::string pending;
    // Each connection answers its first request and drops its second.
    for (int count = 0; auto request = readRequest(fd, pending); ++count) {
      {
        std::lock_guard lock(mutex);
        seen.emplace_back(connection, request->substr(0, request->find(" HTTP/")) + " " +
                                          request->substr(request->find("\r\n\r\n") + 4));
      }
      if (count == 1) return;
      sendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    }
  });
  const std::string url = server.url() + "c";
  auto got = sendInTurn(*platform.http, {postRequest(url, "n=1"), postRequest(url, "n=2"),
                                         get(url + "?n=3"), get(url + "?n=4")});
  ASSERT_EQ(got.size(), 4u);
  for (std::size_t i : {0, 2}) EXPECT_EQ(got[i].body, "ok");
  for (std::size_t i : {1, 3}) {
    ASSERT_TRUE(got[i].error.has_value()) << i;
    EXPECT_FALSE(got[i].response.has_value());
    EXPECT_EQ(got[i].error->localizedDescription, "The network connection was lost.");
  }
  stopClient();
  server.stop();
  std::lock_guard lock(mutex);
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0].second, "POST /c n=1");
  EXPECT_EQ(seen[1].second, "POST /c n=2");
  EXPECT_EQ(seen[2].second, "GET /c?n=3 ");
  EXPECT_EQ(seen[3].second, "GET /c?n=4 ");
  // The second of each pair went on the first one's live connection.
  EXPECT_EQ(seen[1].first, seen[0].first);
  EXPECT_EQ(seen[3].first, seen[2].first);
}

// Redirects are followed to HTTPS only, verified, for five hops at most, and
// carry none of an earlier hop's cookies.
TEST_F(HttpClientCurlTest, RedirectsLeadOnlyToVerifiedHttps) {
  std::mutex mutex;
  std::vector<httplib::Request> plainSeen, landed;  // guarded by mutex
  int hops = 0;                                     // guarded by mutex
  // Routes are in place before a server starts: its threads read them unguarded.
  Loopback plain;
  plain.server().Get(
      R"(/(\w+))", [&](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        plainSeen.push_back(request);
        response.set_redirect("http://" + request.get_header_value("Host") + "/other", 302);
      });
  const std::string plainOrigin = "http://127.0.0.1:" + plain.start();
  Loopback secure(/*tls=*/true);
  secure.server().Post(
      R"(/(\w+))", [&](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        if (request.path == "/downgrade") {
          response.set_redirect(plainOrigin + "/c", 307);
        } else if (request.path == "/upgrade") {
          response.set_header("Set-Cookie", "s=1; Path=/");
          response.set_content("moved", "text/plain");
          response.set_redirect("/landed", 307);
        } else if (request.path == "/elsewhere") {
          // A name under "localhost" reaches loopback but is not in the certificate.
          response.set_redirect("https://elsewhere." + request.get_header_value("Host") + "/landed",
                                307);
        } else if (request.path == "/loop") {
          ++hops;
          response.set_redirect("/loop", 307);
        } else {
          landed.push_back(request);
          response.set_content("landed", "text/plain");
        }
      });
  const std::string secureOrigin = "https://localhost:" + secure.start();

  // A plain first hop is allowed, a plain redirect target is not.
  auto client = makeCurlHttpClient(kCerts + "/ca.pem", fake.log);
  auto got =
      sendInTurn(*client, {postRequest(secureOrigin + "/downgrade", "a=1"),
                           postRequest(secureOrigin + "/upgrade", "a=1"),
                           postRequest(secureOrigin + "/loop", "a=1"), get(plainOrigin + "/hop"),
                           postRequest(secureOrigin + "/elsewhere", "a=1")});
  client.reset();
  secure.stop();
  plain.stop();
  ASSERT_EQ(got.size(), 5u);
  for (std::size_t i : {0, 3, 4}) {
    ASSERT_TRUE(got[i].error.has_value()) << i;
    EXPECT_EQ(got[i].error->code, Code::SecureConnectionFailed) << i;
    EXPECT_FALSE(got[i].response.has_value());
  }
  ASSERT_FALSE(got[1].error.has_value()) << got[1].error->localizedDescription;
  EXPECT_EQ(got[1].body, "landed");
  EXPECT_EQ(got[1].response->url, secureOrigin + "/landed");
  EXPECT_EQ(got[2].error.value().localizedDescription, "too many HTTP redirects");

  std::lock_guard lock(mutex);
  ASSERT_EQ(plainSeen.size(), 1u);  // the first hop only, never a redirect target
  EXPECT_EQ(plainSeen[0].path, "/hop");
  ASSERT_EQ(landed.size(), 1u);
  EXPECT_EQ(landed[0].body, "a=1");
  EXPECT_FALSE(landed[0].has_header("Cookie"));
  EXPECT_EQ(hops, 6);  // the first request and five redirects
}

// An answer longer than the request allows is refused: up front when its
// length is announced, as soon as it passes the limit when it is not.
TEST_F(HttpClientCurlTest, AnswersLongerThanTheLimitAreRefused) {
  std::atomic<bool> closedBeforeBody{false};
  LoopbackListener server([&](int fd, std::size_t) {
    std::string pending;
    while (auto request = readRequest(fd, pending)) {
      if (request->starts_with("GET /announced ")) {
        // Nothing of the body is sent: a client waiting for it would time out.
        sendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 300000000\r\n\r\n");
        char buffer[4096];
        ssize_t got;
        while ((got = recv(fd, buffer, sizeof buffer, 0)) > 0) {
        }
        closedBeforeBody = got == 0 || errno == ECONNRESET;  // not merely quiet
        return;
      }
      // GET /chunked?<bytes>: that many bytes in chunks of at most 64 KiB.
      std::size_t left = std::stoul(request->substr(request->find('?') + 1));
      bool open = sendAll(fd, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
      while (open && left > 0) {
        const std::size_t chunk = std::min<std::size_t>(left, 64 << 10);
        open = sendAll(fd, fmt::format("{:x}\r\n{}\r\n", chunk, std::string(chunk, 'x')));
        left -= chunk;
      }
      if (!open || !sendAll(fd, "0\r\n\r\n")) return;
    }
  });
  constexpr std::size_t kMiB = 1 << 20;
  const std::string chunked = server.url() + "chunked?";
  std::vector<HttpRequest> requests{
      get(server.url() + "announced"), get(chunked + std::to_string(kMiB)),
      get(chunked + std::to_string(kMiB + 1)), get(chunked + std::to_string(3 * kMiB))};
  requests[3].maxResponseBytes = 4 * kMiB;
  auto got = sendInTurn(*platform.http, requests);
  stopClient();
  server.stop();
  ASSERT_EQ(got.size(), 4u);
  for (std::size_t i : {0, 2}) {
    ASSERT_TRUE(got[i].error.has_value()) << i;
    EXPECT_EQ(got[i].error->localizedDescription, "The response is too large.");
  }
  EXPECT_TRUE(closedBeforeBody);
  EXPECT_EQ(got[1].body.value_or("").size(), kMiB);
  EXPECT_EQ(got[3].body.value_or("").size(), 3 * kMiB);
}

// The platform runs network I/O on the library's own loop thread when the
// library owns the main loop, and never on the host's thread when the host
// lends its context.
TEST(LinuxPlatformNetwork, TransfersRunOnTheLibraryLoopAndNeverOnTheHostThread) {
  Loopback loopback;
  loopback.server().Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("ok", "text/plain");
  });
  const std::string url = "http://127.0.0.1:" + loopback.start() + "/";
  TempDir dir;
  GMainContext* hostContext = g_main_context_new();
  for (GMainContext* context : {static_cast<GMainContext*>(nullptr), hostContext}) {
    DeploymentSettings settings;
    settings.storePath = (dir.path() / "store.sqlite").string();
    LinuxPlatformOptions options;
    options.hostContext = context;
    options.log = std::make_shared<fake::FakeLog>();
    Platform platform = makeLinuxPlatform(settings, options);
    std::promise<std::pair<bool, std::optional<std::string>>> answered;
    platform.http->send(get(url), [&](auto body, auto, auto) {
      answered.set_value({platform.mainLoop->isMainThread(), body});
    });
    auto future = answered.get_future();
    ASSERT_EQ(future.wait_for(15s), std::future_status::ready);
    auto [onMainLoop, body] = future.get();
    EXPECT_EQ(body, "ok");
    EXPECT_EQ(onMainLoop, context == nullptr) << (context ? "host context" : "own loop");
  }
  g_main_context_unref(hostContext);
  loopback.stop();
}

}  // namespace
}  // namespace qs::testing

#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <future>
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
using Code = HttpError::Code;

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

// An httplib server on a loopback port, listening once start() returns.
class Loopback {
 public:
  explicit Loopback(std::unique_ptr<httplib::Server> server = std::make_unique<httplib::Server>())
      : server_(std::move(server)) {}
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

// A bound loopback port that refuses connections, or when `listening` takes
// them into its backlog and never answers.
class SilentPort {
 public:
  explicit SilentPort(bool listening) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd_, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    if (listening) listen(fd_, 16);
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
  }
  ~SilentPort() { close(fd_); }
  const int fd_;
  std::string url;
};

HttpRequest get(std::string url) { return HttpRequest{"GET", std::move(url), {}, {}, 5.0}; }

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
  SilentPort refusing(false), silent(true);
  const auto started = std::chrono::steady_clock::now();
  post(silent.url, "a=b", "QS325");
  for (const char* url : {refusing.url.c_str(), "http://exa mple.com/", "ftp://127.0.0.1/", ""}) {
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
  SilentPort silent(true);
  HttpClient* raw = platform.http.get();
  // This completion sends again while the client shuts down; that is cancelled too.
  raw->send(get(silent.url), [raw, url = silent.url, sink = inbox->completion()](auto... args) {
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
  SilentPort refusing(false);
  auto holder = std::make_shared<std::shared_ptr<HttpClient>>(makeCurlHttpClient("", fake.log));
  std::promise<std::optional<HttpError>> dropped;
  (*holder)->send(get(refusing.url), [holder, &dropped](auto, auto, auto error) {
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

TEST_F(HttpClientCurlTest, TlsTrustsTheGivenAuthorityAndVerifiesPeers) {
  // A throw-away authority and a "localhost" certificate it signed.
  char pattern[] = "/tmp/qs-pki-XXXXXX";
  const std::string dir = mkdtemp(pattern);
  const std::string script = "cd " + dir + R"( && exec >/dev/null 2>&1 &&
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 \
      -subj /CN=TestAuthority -keyout ca.key -out ca.pem &&
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=localhost \
      -keyout leaf.key -out leaf.csr &&
    printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\n' > leaf.ext &&
    openssl x509 -req -in leaf.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1 \
      -extfile leaf.ext -out leaf.pem)";
  ASSERT_EQ(std::system(script.c_str()), 0);
  Loopback loopback(std::make_unique<httplib::SSLServer>((dir + "/leaf.pem").c_str(),
                                                         (dir + "/leaf.key").c_str()));
  loopback.server().Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("secure", "text/plain");
  });
  const std::string url = "https://localhost:" + loopback.start() + "/";

  auto trusting = makeCurlHttpClient(dir + "/ca.pem", fake.log);
  trusting->send(get(url), inbox->completion());
  auto got = inbox->waitFor(1);
  ASSERT_EQ(got.size(), 1u);
  ASSERT_FALSE(got[0].error.has_value()) << got[0].error->localizedDescription;
  EXPECT_EQ(got[0].body, "secure");

  auto systemOnly = makeCurlHttpClient("", fake.log);
  systemOnly->send(get(url), inbox->completion());
  auto unreadable = makeCurlHttpClient(dir + "/missing.pem", fake.log);
  unreadable->send(get(url), inbox->completion());
  EXPECT_TRUE(fake.log->contains("cannot read trust file"));
  got = inbox->waitFor(3);
  ASSERT_EQ(got.size(), 3u);
  for (std::size_t i = 1; i < 3; ++i) {
    EXPECT_EQ(got[i].error.value().code, Code::SecureConnectionFailed);
    EXPECT_EQ(got[i].error->localizedDescription,
              "An SSL error has occurred and a secure connection to the server cannot be made.");
  }
  loopback.stop();
  std::filesystem::remove_all(dir);
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
  char pattern[] = "/tmp/qs-platform-XXXXXX";
  const std::string dir = mkdtemp(pattern);
  GMainContext* hostContext = g_main_context_new();
  for (GMainContext* context : {static_cast<GMainContext*>(nullptr), hostContext}) {
    DeploymentSettings settings;
    settings.storePath = dir + "/store.sqlite";
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
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace qs

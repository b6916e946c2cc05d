// The libcurl helper against the sandbox's blocking backend over loopback
// HTTPS, with the pages in the real web view under Xvfb.
#include "quarrystone/http/CurlProtection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "SandboxGtkHost.h"

namespace qs::http {
namespace {

const auto* const kDisplay = ::testing::AddGlobalTestEnvironment(new test::XvfbDisplay);

// One response as the host's sinks saw it.
struct Reply {
  CurlResult result;
  std::string body;
};

// One sandbox, one started manager and one host window for the whole suite.
class CurlProtectionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    window = GTK_WINDOW(g_object_ref_sink(gtk_window_new()));
    gtk_window_present(window);
    host = new testing::SandboxGtkHost("curl-host", "curlapp");
    ASSERT_TRUE(host->ready()) << host->sandbox().output();
  }
  static void TearDownTestSuite() {
    gtk_window_destroy(window);
    g_object_unref(window);
    host->stopSandbox();
  }

  static std::shared_ptr<Protection> protection(
      std::chrono::milliseconds deadline = std::chrono::minutes(5)) {
    return Protection::create(host->manager(), window, {{"localhost"}, deadline});
  }

  // The request as a host sets it up: the URL on the handle, its body sink
  // handed over.
  static CurlRequest request(CURL* easy, Reply& reply, const std::string& url) {
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_CAINFO, host->sandbox().caFile().c_str());
    CurlRequest r;
    r.easy = easy;
    r.onBody = [&reply](const char* data, std::size_t size) {
      reply.body.append(data, size);
      return size;
    };
    return r;
  }

  // The blocking form on a host worker thread while this (GTK) thread serves
  // the pages; `whilePending` runs here once the call is under way.
  static Reply performOnWorker(const std::shared_ptr<Protection>& p, const std::string& url,
                               const std::function<void()>& whilePending = {}) {
    Reply reply;
    CURL* easy = curl_easy_init();
    CurlRequest r = request(easy, reply, url);
    std::atomic<bool> finished{false};
    std::thread worker([&] {
      reply.result = perform(p, std::move(r));
      finished = true;
      g_main_context_wakeup(nullptr);
    });
    if (whilePending) whilePending();
    EXPECT_TRUE(test::iterateUntil([&] { return finished.load(); }, 90));
    worker.join();
    curl_easy_cleanup(easy);
    return reply;
  }

  static std::string backend(const std::string& query) {
    return host->sandbox().url("/api/orders?" + query);
  }
  static std::vector<Value> caseEvents(const std::string& name) {
    return host->backendEvents(name);
  }
  static GtkWindow* pageWindow() { return testing::SandboxGtkHost::pageOver(window); }
  // Waits for the page over the host window and closes it as its close control does.
  static void closePage() {
    GtkWindow* page = nullptr;
    ASSERT_TRUE(test::iterateUntil([&] { return (page = pageWindow()) != nullptr; }));
    EXPECT_TRUE(testing::SandboxGtkHost::closePage(page));
  }

  static inline testing::SandboxGtkHost* host = nullptr;
  static inline GtkWindow* window = nullptr;
};

// A token on an allowed call and a solved captcha sent once more are checked
// through the C interface (CHttp.CurlProtectionFromC), on these same paths.
TEST_F(CurlProtectionTest, OnlyDeclaredHostsGetTheTokenAndOtherRefusalsPassUntouched) {
  auto p = protection();
  // Another host: no header, and its captcha answer is not handled.
  const std::string foreign =
      "https://127.0.0.1:" + std::to_string(host->sandbox().port()) + "/api/orders?case=foreign";
  Reply other = performOnWorker(p, foreign);
  EXPECT_EQ(other.result.outcome, Outcome::PassedThrough);
  EXPECT_EQ(other.result.status, 403);
  EXPECT_NE(other.body.find("\"captcha\""), std::string::npos);
  auto f = caseEvents("foreign");
  ASSERT_EQ(f.size(), 1u);
  EXPECT_TRUE(f[0]["authorization"].is_null());

  // Refusals that are not the service's block, or are broken, reach the host
  // as they came.
  for (const char* kind : {"plain", "badjson", "badpage"}) {
    Reply bad = performOnWorker(p, backend(std::string("challenge=") + kind + "&case=" + kind));
    EXPECT_EQ(bad.result.outcome, Outcome::PassedThrough) << kind;
    EXPECT_EQ(bad.result.status, 403) << kind;
    EXPECT_FALSE(bad.body.empty()) << kind;
    auto events = caseEvents(kind);
    ASSERT_EQ(events.size(), 1u) << kind;
    EXPECT_EQ(events[0]["authorization"].get<std::string>().rfind("3:", 0), 0u);
  }
  EXPECT_EQ(pageWindow(), nullptr);
}

// The blocking form here, as the C interface test covers the asynchronous one.
TEST_F(CurlProtectionTest, BackendBlockingAgainAfterASolveStopsTheLoopAndIsReported) {
  Reply reply = performOnWorker(protection(), backend("challenge=always&case=loop&autosolve=1"));
  EXPECT_EQ(reply.result.outcome, Outcome::LoopStopped) << reply.result.detail;
  EXPECT_EQ(reply.result.status, 403);
  EXPECT_NE(reply.body.find("\"captcha\""), std::string::npos);
  auto events = caseEvents("loop");
  ASSERT_EQ(events.size(), 2u);
  EXPECT_NE(events[0]["authorization"], events[1]["authorization"]);
  EXPECT_TRUE(host->sandbox().waitForEvents(
      [](const Value& e) {
        return e.value("event", "") == "client_error" &&
               e.dump().find("blocked again after a solved captcha") != std::string::npos;
      },
      1, 20));
}

TEST_F(CurlProtectionTest, PagesEndByTheUserTheDeadlineOrAsABlock) {
  // Closed by the user: the block answer comes back, nothing is retried.
  Reply closed = performOnWorker(protection(), backend("challenge=always&case=close"), closePage);
  EXPECT_EQ(closed.result.outcome, Outcome::ClosedByUser) << closed.result.detail;
  EXPECT_EQ(closed.result.status, 403);
  EXPECT_NE(closed.body.find("\"captcha\""), std::string::npos);
  EXPECT_EQ(caseEvents("close").size(), 1u);

  // The deadline closes the page itself.
  Reply late = performOnWorker(protection(std::chrono::milliseconds(1500)),
                               backend("challenge=always&case=deadline"));
  EXPECT_EQ(late.result.outcome, Outcome::TimedOut);
  EXPECT_EQ(late.result.status, 403);
  EXPECT_TRUE(test::iterateUntil([] { return pageWindow() == nullptr; }));

  // A block page stays up for the host to take down; the call returns at once.
  Reply blocked = performOnWorker(protection(), backend("challenge=block&case=block"));
  EXPECT_EQ(blocked.result.outcome, Outcome::Blocked);
  EXPECT_NE(blocked.body.find("\"block\""), std::string::npos);
  closePage();
}

TEST_F(CurlProtectionTest, AStreamedBodyIsNotSentTwiceAndTheGtkThreadIsRefused) {
  auto p = protection();
  Reply reply;
  CURL* easy = curl_easy_init();
  CurlRequest r = request(easy, reply, backend("challenge=once&case=stream&autosolve=1"));
  std::string body = "streamed=1";
  std::size_t offset = 0;
  curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.size()));
  r.read = [&](char* buffer, std::size_t size) {
    std::size_t n = std::min(size, body.size() - offset);
    std::memcpy(buffer, body.data() + offset, n);
    offset += n;
    return n;
  };
  std::optional<CurlResult> result;
  performAsync(p, std::move(r), [&](CurlResult done) { result = std::move(done); });
  ASSERT_TRUE(test::iterateUntil([&] { return result.has_value(); }, 90));
  EXPECT_EQ(result->outcome, Outcome::NotReplayable) << result->detail;
  EXPECT_EQ(result->status, 403);
  auto events = caseEvents("stream");
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["method"], "PUT");
  EXPECT_EQ(events[0]["body"], "streamed=1");

  // The blocking form on the thread that shows the pages would wait forever.
  Reply refused;
  CurlResult onGtk = perform(p, request(easy, refused, backend("case=refused")));
  curl_easy_cleanup(easy);
  EXPECT_EQ(onGtk.outcome, Outcome::Failed);
  EXPECT_NE(onGtk.detail.find("GTK thread"), std::string::npos);
  EXPECT_TRUE(caseEvents("refused").empty());
}

}  // namespace
}  // namespace qs::http

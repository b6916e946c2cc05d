// The libsoup 3 integration against the sandbox's blocking backend over
// loopback HTTPS, with the real manager and the pages in GTK windows under
// Xvfb. Everything runs on the default context (the GTK thread).
#include "quarrystone/http/SoupProtection.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "SandboxGtkHost.h"

namespace qs::http {
namespace {

const auto* const kDisplay = ::testing::AddGlobalTestEnvironment(new test::XvfbDisplay);

struct Sent {
  Outcome outcome = Outcome::Failed;
  guint status = 0;
  std::string body;
  std::optional<int> errorCode;  // the GIOErrorEnum code, when an error came back
};

// The body of a finished send, or "" for none.
std::string text(GBytes* bytes) {
  gsize size = 0;
  const char* data = bytes ? static_cast<const char*>(g_bytes_get_data(bytes, &size)) : nullptr;
  std::string out = data ? std::string(data, size) : "";
  if (bytes != nullptr) g_bytes_unref(bytes);
  return out;
}

class SoupProtectionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    host_ = new testing::SandboxGtkHost("soup-host", "soupapp");
    ASSERT_TRUE(host_->ready()) << host_->sandbox().output();
  }
  static void TearDownTestSuite() { host_->stopSandbox(); }

  void SetUp() override {
    window_ = GTK_WINDOW(gtk_window_new());
    gtk_window_present(window_);
    protection_ = Protection::create(host_->manager(), window_, {{"localhost"}});
    GTlsDatabase* ca = g_tls_file_database_new(host_->sandbox().caFile().c_str(), nullptr);
    session_ = soup_session_new_with_options("tls-database", ca, "timeout", 15, nullptr);
    g_object_unref(ca);
  }
  void TearDown() override {
    EXPECT_TRUE(test::iterateUntil([this] { return pageWindow() == nullptr; }, 10));
    g_object_unref(session_);
    gtk_window_destroy(window_);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  // A URL of the backend whose requests the sandbox files under `caseKey`.
  static std::string orders(const std::string& query, const std::string& caseKey,
                            const std::string& host = "localhost") {
    return "https://" + host + ":" + std::to_string(host_->sandbox().port()) + "/api/orders?" +
           query + "&case=" + caseKey;
  }
  static std::vector<Value> events(const std::string& caseKey) {
    return host_->backendEvents(caseKey);
  }
  static std::string token() { return host_->manager().httpHeaders().at("X-QS-AUTHORIZATION"); }
  GtkWindow* pageWindow() const { return testing::SandboxGtkHost::pageOver(window_); }
  // Closes the page as its close control does, once it has loaded (its own
  // title replaces the window's default).
  void closePage() {
    ASSERT_TRUE(test::iterateUntil([this] {
      GtkWindow* page = pageWindow();
      return page != nullptr && std::string(gtk_window_get_title(page)) != "Security check";
    }));
    testing::SandboxGtkHost::closePage(pageWindow());
  }

  // A protected send that takes `message` over; `whilePending` runs once it
  // is under way.
  Sent send(SoupMessage* message, const std::shared_ptr<Protection>& protection = nullptr,
            GCancellable* cancellable = nullptr, const std::function<void()>& whilePending = {}) {
    std::optional<Sent> sent;
    sendAndReadAsync(
        protection ? protection : protection_, session_, message, G_PRIORITY_DEFAULT, cancellable,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          EXPECT_TRUE(SOUP_IS_SESSION(source));
          Sent s;
          GError* error = nullptr;
          s.body = text(sendAndReadFinish(result, &s.outcome, &error));
          if (error != nullptr) s.errorCode = error->code;
          g_clear_error(&error);
          *static_cast<std::optional<Sent>*>(data) = s;
        },
        &sent);
    if (whilePending) whilePending();
    EXPECT_TRUE(test::iterateUntil([&] { return sent.has_value(); }, 60));
    if (sent) sent->status = soup_message_get_status(message);
    g_object_unref(message);
    return sent.value_or(Sent{});
  }
  Sent send(const std::string& url, const std::shared_ptr<Protection>& protection = nullptr) {
    return send(soup_message_new("GET", url.c_str()), protection);
  }

  // A plain host call on the session: its status and body.
  std::pair<guint, std::string> hostCall(const std::string& url) {
    SoupMessage* message = soup_message_new("GET", url.c_str());
    std::optional<std::string> body;
    soup_session_send_and_read_async(
        session_, message, G_PRIORITY_DEFAULT, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          *static_cast<std::optional<std::string>*>(data) =
              text(soup_session_send_and_read_finish(SOUP_SESSION(source), result, nullptr));
        },
        &body);
    EXPECT_TRUE(test::iterateUntil([&] { return body.has_value(); }));
    const guint status = soup_message_get_status(message);
    g_object_unref(message);
    return {status, body.value_or("")};
  }

  static inline testing::SandboxGtkHost* host_ = nullptr;
  GtkWindow* window_ = nullptr;
  SoupSession* session_ = nullptr;
  std::shared_ptr<Protection> protection_;
};

// The page flow (which refusals are the service's block, the deadline, the
// block page, a second block after a solve) is shared with the libcurl helper
// and tested there; here, what this transport sends and hands back.
TEST_F(SoupProtectionTest, PassesThroughWhatIsNotTheServicesBlock) {
  // Another host gets no header, and no block handling even for the
  // service's block.
  for (auto [query, key, host] : {std::tuple{"x=1", "allowed", "localhost"},
                                  {"challenge=plain", "plain", "localhost"},
                                  {"challenge=always", "foreign", "127.0.0.1"}}) {
    SCOPED_TRACE(key);
    const bool allowed = std::string(key) == "allowed", foreign = std::string(key) == "foreign";
    Sent sent = send(orders(query, key, host));
    EXPECT_EQ(sent.outcome, allowed ? Outcome::Allowed : Outcome::PassedThrough);
    EXPECT_EQ(sent.status, allowed ? 200u : 403u);
    EXPECT_FALSE(sent.body.empty());
    auto seen = events(key);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0]["authorization"], foreign ? Value() : Value(token()));
  }
  EXPECT_EQ(pageWindow(), nullptr);
}

TEST_F(SoupProtectionTest, SolvedCaptchaResendsTheMessageOnceWithTheFreshToken) {
  GBytes* body = g_bytes_new_static("item=7", 6);
  // Bytes and a seekable stream can be sent again; a body given to libsoup
  // directly cannot.
  for (const char* kind : {"bytes", "stream", "unreplayable"}) {
    SCOPED_TRACE(kind);
    const std::string key = std::string("solve-") + kind;
    SoupMessage* message =
        soup_message_new("POST", orders("challenge=once&autosolve=1", key).c_str());
    GInputStream* stream = g_memory_input_stream_new_from_bytes(body);
    if (kind[0] == 'b') setReplayableBody(message, "application/x-www-form-urlencoded", body);
    if (kind[0] == 's') setReplayableBody(message, nullptr, stream, 6);
    if (kind[0] == 'u') soup_message_set_request_body_from_bytes(message, nullptr, body);
    Sent sent = send(message);
    g_object_unref(stream);
    auto seen = events(key);
    if (kind[0] == 'u') {
      EXPECT_EQ(sent.outcome, Outcome::NotReplayable);
      EXPECT_EQ(sent.status, 403u);
      EXPECT_EQ(seen.size(), 1u);
      continue;
    }
    EXPECT_EQ(sent.outcome, Outcome::CaptchaSolved);
    EXPECT_EQ(sent.status, 200u);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(seen[0]["authorization"].is_string());
    EXPECT_NE(seen[0]["authorization"], seen[1]["authorization"]);
    EXPECT_EQ(seen[1]["authorization"], token());
    EXPECT_EQ(seen[1]["body"], "item=7");
  }
  g_bytes_unref(body);
}

// Either way the host gets the block answer the page was shown for.
TEST_F(SoupProtectionTest, PageEndsByTheUserOrACancel) {
  Sent sent = send(soup_message_new("GET", orders("challenge=always", "close").c_str()), nullptr,
                   nullptr, [this] { closePage(); });
  EXPECT_EQ(sent.outcome, Outcome::ClosedByUser);
  EXPECT_EQ(sent.status, 403u);
  EXPECT_EQ(events("close").size(), 1u);

  GCancellable* cancellable = g_cancellable_new();
  sent = send(soup_message_new("GET", orders("challenge=always", "cancel").c_str()), nullptr,
              cancellable, [this, cancellable] {
                ASSERT_TRUE(test::iterateUntil([this] { return pageWindow() != nullptr; }));
                g_cancellable_cancel(cancellable);
              });
  g_object_unref(cancellable);
  EXPECT_EQ(sent.outcome, Outcome::Cancelled);
  EXPECT_EQ(sent.errorCode, G_IO_ERROR_CANCELLED);

  EXPECT_EQ(sent.status, 403u);
  EXPECT_EQ(events("cancel").size(), 1u);
}

TEST_F(SoupProtectionTest, AttachedSessionCarriesTheTokenAndRunsTheChallenge) {
  std::vector<Outcome> reports;
  attach(protection_, session_,
         [&reports](SoupMessage* message, Outcome outcome, const std::string&) {
           EXPECT_TRUE(SOUP_IS_MESSAGE(message));
           reports.push_back(outcome);
         });
  EXPECT_EQ(hostCall(orders("x=1", "a-allowed")).first, 200u);
  EXPECT_EQ(hostCall(orders("x=1", "a-foreign", "127.0.0.1")).first, 403u);  // no token
  EXPECT_EQ(hostCall(orders("challenge=plain", "a-plain")).first, 403u);

  // The host's call sees the block; the challenge runs beside it.
  const std::string url = orders("challenge=once&autosolve=1", "a-solved");
  auto [status, body] = hostCall(url);
  EXPECT_EQ(status, 403u);
  EXPECT_NE(body.find("captcha"), std::string::npos);
  ASSERT_TRUE(test::iterateUntil([&] { return !reports.empty(); }, 60));
  EXPECT_EQ(reports, std::vector<Outcome>{Outcome::CaptchaSolved});
  EXPECT_EQ(hostCall(url).first, 200u);  // sent again by the host, with the fresh token

  detach(session_);
  EXPECT_EQ(hostCall(orders("x=1", "a-detached")).first, 403u);  // no header: captcha

  for (auto [key, carried] :
       {std::pair{"a-allowed", true}, {"a-foreign", false}, {"a-detached", false}}) {
    auto seen = events(key);
    ASSERT_EQ(seen.size(), 1u) << key;
    EXPECT_EQ(seen[0]["authorization"].is_string(), carried) << key;
  }
  auto twice = events("a-solved");
  ASSERT_EQ(twice.size(), 2u);
  EXPECT_TRUE(twice[1]["authorization"].is_string());
  EXPECT_NE(twice[0]["authorization"], twice[1]["authorization"]);
}

}  // namespace
}  // namespace qs::http

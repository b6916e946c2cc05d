// The libsoup 3 integration against the sandbox's blocking backend over
// loopback HTTPS, with the real manager and the pages in GTK windows under
// Xvfb. Everything runs on the default context (the GTK thread).
#include "quarrystone/http/SoupProtection.h"

#include <gtest/gtest.h>

#include <atomic>
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
    ProtectionSettings settings{{"localhost"}};
    protection_ = Protection::create(host_->manager(), window_, settings);
    settings.deadline = std::chrono::milliseconds(400);
    shortDeadline_ = Protection::create(host_->manager(), window_, settings);
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

  // A URL of the backend with a case key of its own, unique in the run.
  static std::string orders(const std::string& query, std::string* caseKey,
                            const std::string& host = "localhost") {
    static int cases = 0;
    *caseKey = "soup" + std::to_string(++cases);
    return "https://" + host + ":" + std::to_string(host_->sandbox().port()) + "/api/orders?" +
           query + "&case=" + *caseKey;
  }
  static std::vector<Value> backendEvents(const std::string& caseKey) {
    return host_->backendEvents(caseKey);
  }
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

  // A protected send; `whilePending` runs once it is under way.
  Sent send(const std::shared_ptr<Protection>& protection, SoupMessage* message,
            GCancellable* cancellable = nullptr, const std::function<void()>& whilePending = {}) {
    std::optional<Sent> sent;
    sendAndReadAsync(
        protection, session_, message, G_PRIORITY_DEFAULT, cancellable,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          EXPECT_TRUE(SOUP_IS_SESSION(source));
          Sent s;
          GError* error = nullptr;
          GBytes* body = sendAndReadFinish(result, &s.outcome, &error);
          if (body != nullptr) {
            gsize size = 0;
            const void* bytes = g_bytes_get_data(body, &size);
            if (size > 0) s.body.assign(static_cast<const char*>(bytes), size);
            g_bytes_unref(body);
          }
          if (error != nullptr) s.errorCode = error->code;
          g_clear_error(&error);
          *static_cast<std::optional<Sent>*>(data) = s;
        },
        &sent);
    if (whilePending) whilePending();
    EXPECT_TRUE(test::iterateUntil([&] { return sent.has_value(); }, 60));
    if (sent) sent->status = soup_message_get_status(message);
    return sent.value_or(Sent{});
  }
  Sent send(const std::shared_ptr<Protection>& protection, const std::string& url) {
    SoupMessage* message = soup_message_new("GET", url.c_str());
    Sent sent = send(protection, message);
    g_object_unref(message);
    return sent;
  }

  // A plain host call on the session.
  std::pair<guint, std::string> hostCall(const std::string& url) {
    SoupMessage* message = soup_message_new("GET", url.c_str());
    std::optional<std::string> body;
    soup_session_send_and_read_async(
        session_, message, G_PRIORITY_DEFAULT, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          GBytes* bytes = soup_session_send_and_read_finish(SOUP_SESSION(source), result, nullptr);
          gsize size = 0;
          const char* text = bytes ? static_cast<const char*>(g_bytes_get_data(bytes, &size)) : "";
          *static_cast<std::optional<std::string>*>(data) = std::string(text ? text : "", size);
          if (bytes != nullptr) g_bytes_unref(bytes);
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
  std::shared_ptr<Protection> shortDeadline_;
};

TEST_F(SoupProtectionTest, PassesThroughWhatIsNotTheServicesBlock) {
  std::string allowed, plain, badJson, badPage, foreign;
  Sent sent = send(protection_, orders("x=1", &allowed));
  EXPECT_EQ(sent.outcome, Outcome::Allowed);
  EXPECT_EQ(sent.status, 200u);
  EXPECT_NE(sent.body.find("orders"), std::string::npos);

  for (auto [query, key] : {std::pair{"challenge=plain", &plain},
                            {"challenge=badjson", &badJson},
                            {"challenge=badpage", &badPage}}) {
    sent = send(protection_, orders(query, key));
    EXPECT_EQ(sent.outcome, Outcome::PassedThrough) << query;
    EXPECT_EQ(sent.status, 403u) << query;
    EXPECT_FALSE(sent.body.empty()) << query;
  }
  // Another host: no header, no block handling even for the service's block.
  sent = send(protection_, orders("challenge=always", &foreign, "127.0.0.1"));
  EXPECT_EQ(sent.outcome, Outcome::PassedThrough);
  EXPECT_EQ(sent.status, 403u);
  EXPECT_EQ(pageWindow(), nullptr);

  const std::string token = host_->manager().httpHeaders().at("X-QS-AUTHORIZATION");
  for (const auto& key : {allowed, plain, badJson, badPage}) {
    auto events = backendEvents(key);
    ASSERT_EQ(events.size(), 1u) << key;
    EXPECT_EQ(events[0]["authorization"], token) << key;
  }
  auto events = backendEvents(foreign);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_TRUE(events[0]["authorization"].is_null());
}

TEST_F(SoupProtectionTest, SolvedCaptchaResendsTheMessageOnceWithTheFreshToken) {
  std::string solved, streamed, unreplayable;
  SoupMessage* message =
      soup_message_new("POST", orders("challenge=once&autosolve=1", &solved).c_str());
  GBytes* body = g_bytes_new_static("item=7", 6);
  setReplayableBody(message, "application/x-www-form-urlencoded", body);
  Sent sent = send(protection_, message);
  g_object_unref(message);
  EXPECT_EQ(sent.outcome, Outcome::CaptchaSolved);
  EXPECT_EQ(sent.status, 200u);
  std::vector<std::string> fresh{host_->manager().httpHeaders().at("X-QS-AUTHORIZATION")};

  // A seekable stream is read again from where it started.
  message = soup_message_new("POST", orders("challenge=once&autosolve=1", &streamed).c_str());
  GInputStream* stream = g_memory_input_stream_new_from_bytes(body);
  setReplayableBody(message, nullptr, stream, 6);
  EXPECT_EQ(send(protection_, message).outcome, Outcome::CaptchaSolved);
  fresh.push_back(host_->manager().httpHeaders().at("X-QS-AUTHORIZATION"));
  g_object_unref(stream);
  g_object_unref(message);

  // A body given to libsoup directly cannot be sent again.
  message = soup_message_new("POST", orders("challenge=once&autosolve=1", &unreplayable).c_str());
  soup_message_set_request_body_from_bytes(message, nullptr, body);
  sent = send(protection_, message);
  g_object_unref(message);
  g_bytes_unref(body);
  EXPECT_EQ(sent.outcome, Outcome::NotReplayable);
  EXPECT_EQ(sent.status, 403u);

  for (std::size_t i = 0; i < 2; ++i) {
    const std::string& key = i == 0 ? solved : streamed;
    auto events = backendEvents(key);
    ASSERT_EQ(events.size(), 2u) << key;
    EXPECT_TRUE(events[0]["authorization"].is_string());
    EXPECT_TRUE(events[1]["authorization"].is_string());
    EXPECT_NE(events[0]["authorization"], events[1]["authorization"]);
    EXPECT_EQ(events[1]["body"], "item=7");
    EXPECT_EQ(events[1]["authorization"], fresh[i]);
  }
  EXPECT_EQ(backendEvents(unreplayable).size(), 1u);
}

TEST_F(SoupProtectionTest, BlockedAgainAfterASolveStopsAndIsReported) {
  std::string loop;
  Sent sent = send(protection_, orders("challenge=always&autosolve=1", &loop));
  EXPECT_EQ(sent.outcome, Outcome::LoopStopped);
  EXPECT_EQ(sent.status, 403u);
  EXPECT_EQ(backendEvents(loop).size(), 2u);
  EXPECT_TRUE(host_->sandbox().waitForEvents(
      [](const Value& e) {
        return e.value("event", "") == "client_error" && e.contains("report") &&
               e["report"].is_object() &&
               e["report"].value("message", "").find("blocked again") != std::string::npos;
      },
      1, 20));
}

TEST_F(SoupProtectionTest, PageEndsByTheUserTheDeadlineOrACancel) {
  std::string key;
  Sent sent;

  SoupMessage* message = soup_message_new("GET", orders("challenge=always", &key).c_str());
  sent = send(protection_, message, nullptr, [this] { closePage(); });
  g_object_unref(message);
  EXPECT_EQ(sent.outcome, Outcome::ClosedByUser);
  EXPECT_EQ(sent.status, 403u);
  EXPECT_EQ(backendEvents(key).size(), 1u);

  sent = send(shortDeadline_, orders("challenge=always", &key));
  EXPECT_EQ(sent.outcome, Outcome::TimedOut);
  EXPECT_EQ(sent.status, 403u);

  GCancellable* cancellable = g_cancellable_new();
  message = soup_message_new("GET", orders("challenge=always", &key).c_str());
  sent = send(protection_, message, cancellable, [this, cancellable] {
    ASSERT_TRUE(test::iterateUntil([this] { return pageWindow() != nullptr; }));
    g_cancellable_cancel(cancellable);
  });
  g_object_unref(message);
  g_object_unref(cancellable);
  EXPECT_EQ(sent.outcome, Outcome::Cancelled);
  EXPECT_EQ(sent.errorCode, G_IO_ERROR_CANCELLED);

  sent = send(protection_, orders("challenge=block", &key));
  EXPECT_EQ(sent.outcome, Outcome::Blocked);
  EXPECT_EQ(sent.status, 403u);
  closePage();  // the block page stays up until the user closes it
  // TearDown checks that every page is gone.
}

TEST_F(SoupProtectionTest, AttachedSessionCarriesTheTokenAndRunsTheChallenge) {
  std::vector<Outcome> reports;
  attach(protection_, session_,
         [&reports](SoupMessage* message, Outcome outcome, const std::string&) {
           EXPECT_TRUE(SOUP_IS_MESSAGE(message));
           reports.push_back(outcome);
         });
  std::string allowed, foreign, plain, solved, detached;
  EXPECT_EQ(hostCall(orders("x=1", &allowed)).first, 200u);
  EXPECT_EQ(hostCall(orders("x=1", &foreign, "127.0.0.1")).first, 403u);  // no token
  EXPECT_EQ(hostCall(orders("challenge=plain", &plain)).first, 403u);

  // The host's call sees the block; the challenge runs beside it.
  const std::string url = orders("challenge=once&autosolve=1", &solved);
  auto [status, body] = hostCall(url);
  EXPECT_EQ(status, 403u);
  EXPECT_NE(body.find("captcha"), std::string::npos);
  ASSERT_TRUE(test::iterateUntil([&] { return !reports.empty(); }, 60));
  EXPECT_EQ(reports, std::vector<Outcome>{Outcome::CaptchaSolved});
  EXPECT_EQ(hostCall(url).first, 200u);  // sent again by the host, with the fresh token

  detach(session_);
  EXPECT_EQ(hostCall(orders("x=1", &detached)).first, 403u);  // no header: captcha

  auto first = backendEvents(allowed), other = backendEvents(foreign);
  ASSERT_EQ(first.size(), 1u);
  ASSERT_EQ(other.size(), 1u);
  EXPECT_TRUE(first[0]["authorization"].is_string());
  EXPECT_TRUE(other[0]["authorization"].is_null());
  auto twice = backendEvents(solved);
  ASSERT_EQ(twice.size(), 2u);
  EXPECT_TRUE(twice[1]["authorization"].is_string());
  EXPECT_NE(twice[0]["authorization"], twice[1]["authorization"]);
  ASSERT_EQ(backendEvents(detached).size(), 1u);
  EXPECT_TRUE(backendEvents(detached)[0]["authorization"].is_null());
}

}  // namespace
}  // namespace qs::http

#include "quarrystone/QSManager.h"

#include "CoreFixture.h"
#include "FakeUI.h"
#include "base/PercentEncoding.h"
#include "block/QSWebViewController.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

class QSManagerTest : public CoreTest {
 protected:
  // A second, started manager on the same fake platform with a scripted UI.
  std::shared_ptr<QSManager> managerWithUI() {
    fake.ui = ui;
    auto shown = QSManager::create(fake.platform(), settings);
    shown->setDelegate(delegate);
    shown->startWith("app1");
    return shown;
  }
  std::shared_ptr<fake::FakeUI> ui = std::make_shared<fake::FakeUI>();
  void storeCookie(const std::string& name, const std::string& token, double ttl) {
    QSManagerInternals::storage(*manager)->saveCookie(
        QSCookie(name, token, Value(ttl), fake.clock->now()));
  }
};

TEST_F(QSManagerTest, StartWithoutDelegateRaisesAndSendsNothing) {
  auto bare = QSManager::create(fake.platform(), settings);
  try {
    bare->startWith("app1");
    FAIL() << "expected the missing-delegate exception";
  } catch (const QSMissingDelegateException& e) {
    EXPECT_STREQ(e.name(), "QSManagerDelegate is missing");
    EXPECT_STREQ(e.reason(), "Make sure you set the QSManagerDelegate before calling startWith:");
  }
  EXPECT_EQ(bare->appId(), "");
  EXPECT_EQ(fake.http->requestCount(), 0u);

  // A delegate that has gone away counts as missing.
  auto gone = std::make_shared<RecordingDelegate>();
  bare->setDelegate(gone);
  gone.reset();
  EXPECT_THROW(bare->startWith("app1"), QSMissingDelegateException);
}

TEST_F(QSManagerTest, HeadersFollowTheStoredCookieAndDebugFlags) {
  manager->setForceBlock(true);
  EXPECT_EQ(manager->httpHeaders(), (HeaderMap{{"X-QS-AUTHORIZATION", "1"}}));

  storeCookie("_qs3", "T", 100);
  manager->setForceCaptcha(true);
  EXPECT_EQ(manager->httpHeaders(),
            (HeaderMap{{"X-QS-AUTHORIZATION", "3:T"}, {"X-QS-SIMULATE", "block"}}));
  manager->setForceBlock(false);
  EXPECT_EQ(manager->httpHeaders().at("X-QS-SIMULATE"), "captcha");
  manager->resetDebugSettings();
  EXPECT_EQ(manager->httpHeaders(), (HeaderMap{{"X-QS-AUTHORIZATION", "3:T"}}));

  // Valid up to and including its fire date (80 of 100 s), then "1" again.
  fake.clock->advance(80);
  EXPECT_EQ(manager->httpHeaders().at("X-QS-AUTHORIZATION"), "3:T");
  fake.clock->advance(0.001);
  EXPECT_EQ(manager->httpHeaders().at("X-QS-AUTHORIZATION"), "1");

  storeCookie("_QS3", "U", 100);
  EXPECT_EQ(manager->httpHeaders().at("X-QS-AUTHORIZATION"), "18446744073709551615:U");
}

TEST_F(QSManagerTest, HeadersAreAppliedToRequestsAndConfigurations) {
  storeCookie("_qs2", "T", 100);
  manager->setForceBlock(true);

  URLRequest request;
  request.headers = {{"x-qs-authorization", "old"}, {"Accept", "text/plain"}};
  manager->setHeadersForRequest(request);
  EXPECT_EQ(request.headers.size(), 3u);
  EXPECT_EQ(*request.valueForHTTPHeaderField("X-QS-AUTHORIZATION"), "2:T");
  EXPECT_EQ(*request.valueForHTTPHeaderField("accept"), "text/plain");

  // Each header replaces the configuration's whole set: only the last stays.
  URLSessionConfiguration configuration;
  configuration.httpAdditionalHeaders = {{"Accept", "text/plain"}};
  manager->setHeadersForConfiguration(configuration);
  EXPECT_EQ(configuration.httpAdditionalHeaders, (HeaderMap{{"X-QS-SIMULATE", "block"}}));
}

TEST_F(QSManagerTest, StateSurvivesARestartOnTheSameStore) {
  manager->setCustomParameters(Value{{"plan", "gold"}});
  storeCookie("_qs3", "T", 1000);
  QSManagerInternals::storage(*manager)->saveVid("V1");

  auto restarted = QSManager::create(fake.platform(), settings);
  restarted->setDelegate(delegate);
  EXPECT_EQ(restarted->httpHeaders().at("X-QS-AUTHORIZATION"), "3:T");
  restarted->startWith("app1");
  auto post = lastPost();
  EXPECT_EQ(post.form["vid"], "V1");
  EXPECT_EQ(post.details()["plan"], "gold");

  restarted->setCustomParameters(Value::object());
  EXPECT_FALSE(QSManagerInternals::storage(*restarted)->getCustomParams().has_value());
}

TEST_F(QSManagerTest, DebugTokensRestartTheExchangeWithoutASession) {
  manager->startWith("app1");
  QSManagerInternals::storage(*manager)->saveSid("S1");
  manager->forceCaptchaToken();
  EXPECT_TRUE(manager->forceCaptcha());
  EXPECT_FALSE(QSManagerInternals::storage(*manager)->getSid().has_value());
  auto post = lastPost();
  EXPECT_EQ(post.details()[QSFM_APP_STATE], "new_session");
  EXPECT_EQ(post.form.count("sid"), 0u);
  EXPECT_EQ(fake.http->requestCount(), 2u);
}

TEST_F(QSManagerTest, MisusedBlockHandlingIsReportedNotShown) {
  manager->startWith("ABC");
  struct Host : ViewController {
  } host;
  auto foreign = manager->checkError(Value::object());
  ASSERT_NE(foreign, nullptr);
  EXPECT_EQ(foreign->type(), QSBlockResponseTypeForeign);

  fake.log->clear();
  manager->handleBlockResponse(nullptr, host);
  manager->handleBlockResponse(foreign, host);
  const std::vector<std::string> messages{
      "QS Error - call handleBlock() only after you pass the responseJson via checkError() method",
      "QS Error - call handleBlock() only if block response type belongs to Quarrystone"};
  EXPECT_EQ(fake.log->lines(), messages);
  EXPECT_EQ(fake.log->levelOf(messages[0]), LogLevel::Error);

  std::vector<std::string> reported;
  for (const auto& r : fake.http->requests()) {
    if (r.method != "GET") continue;
    const std::string prefix = "https://collector-ABC.test/api/v1/collector/clientError?r=";
    ASSERT_EQ(r.url.rfind(prefix, 0), 0u) << r.url;
    std::string encoded = r.url.substr(prefix.size());
    // Colons and commas stay; braces and quotes are escaped.
    EXPECT_NE(encoded.find("%7B%22message%22:"), std::string::npos) << encoded;
    Value record = Value::parse(percentDecode(encoded).value_or(""), nullptr, false);
    EXPECT_EQ(record.size(), 4u);
    EXPECT_EQ(record["appId"], "ABC");
    EXPECT_EQ(record["sdk_version"], "0.4.0");
    EXPECT_EQ(record["tag"], QSManagerInternals::networkManager(*manager)->userAgent());
    reported.push_back(record["message"]);
  }
  EXPECT_EQ(reported, messages);

  // The report's outcome is only logged; an HTTP error status is a success.
  fake.http->respondNext(fake::FakeReply::json("oops", 500));  // the collector POST
  fake.http->respondNext(fake::FakeReply::json("oops", 500));
  fake.http->respondNext(fake::FakeReply::failure(HttpError::Code::NotConnected, "offline"));
  EXPECT_EQ(fake.log->count("LogEntries - success"), 1u);
  EXPECT_TRUE(fake.log->contains("LogEntries received error: offline"));
}

// "<p>hi</p>" as the host backend sends it.
Value blockJson(const char* action) { return Value{{"action", action}, {"page", "PHA+aGk8L3A+"}}; }

TEST_F(QSManagerTest, BlockAndCaptchaPagesArePresentedOverTheHostScreen) {
  ViewController host;
  // Without a UI the page cannot be shown; that is logged, not raised.
  fake.log->clear();
  manager->handleBlockResponse(manager->checkError(blockJson("captcha")), host);
  EXPECT_EQ(fake.log->lines(), (std::vector<std::string>{
                                   "----> handle Captcha",
                                   "showBlockResponse - no UI is available to present the page"}));

  auto shown = managerWithUI();
  fake.log->clear();
  shown->handleBlockResponse(shown->checkError(blockJson("block")), host);
  EXPECT_EQ(fake.log->lines().at(0), "----> handle Block");
  shown->handleBlockResponse(shown->checkError(blockJson("captcha")), host);
  EXPECT_EQ(fake.log->count("----> handle Captcha"), 1u);
  EXPECT_EQ(fake.log->count("showBlockResponse"), 0u);

  ASSERT_EQ(ui->presented().size(), 2u);
  for (const auto& [controller, presentedOver, animated] : ui->presented()) {
    EXPECT_EQ(presentedOver, &host);
    EXPECT_TRUE(animated);
    auto page = std::dynamic_pointer_cast<QSWebViewController>(controller);
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page->delegate().get(), static_cast<QSWebViewDelegate*>(shown.get()));
    auto view = ui->contentOf(*page);
    ASSERT_NE(view, nullptr);
    ASSERT_EQ(view->loads().size(), 1u);
    EXPECT_EQ(view->loads()[0].html, "<p>hi</p>");
    EXPECT_EQ(view->loads()[0].baseUrl, "https://service.test");
  }
  auto block = ui->presented()[0].controller;
  auto captcha = ui->presented()[1].controller;
  EXPECT_EQ(std::dynamic_pointer_cast<QSWebViewController>(block)->blockResponse()->type(),
            QSBlockResponseTypeBlock);

  // The solved captcha starts a new session and takes its page down; the
  // block page stays.
  const std::size_t before = collectorPosts().size();
  EXPECT_EQ(ui->contentOf(*captcha)->navigate("https://service.test/qs/captcha_callback?status=0"),
            false);
  ASSERT_EQ(collectorPosts().size(), before + 1);
  EXPECT_EQ(lastPost().type(), QSFM_APP_INIT);
  EXPECT_EQ(lastPost().details()[QSFM_APP_STATE], "new_session");
  EXPECT_FALSE(ui->isPresented(*captcha));
  EXPECT_TRUE(ui->isPresented(*block));
}

class RecordingPageObserver final : public QSBlockPageObserver {
 public:
  void captchaAttemptFailed() override { ++failedAttempts; }
  void blockPageEnded(QSBlockPageEnd end) override { ends.push_back(end); }
  int failedAttempts = 0;
  std::vector<QSBlockPageEnd> ends;
};

// What an integration that waits for the page sees: failed answers, how the
// page ended, and a handle that closes it.
TEST_F(QSManagerTest, AnObservedPageReportsItsEndAndCanBeClosed) {
  ViewController host;
  auto shown = managerWithUI();

  auto observer = std::make_shared<RecordingPageObserver>();
  EXPECT_EQ(shown->handleBlockResponse(shown->checkError(Value::object()), host, observer),
            nullptr);
  auto captchaPage =
      shown->handleBlockResponse(shown->checkError(blockJson("captcha")), host, observer);
  ASSERT_NE(captchaPage, nullptr);
  auto captcha = ui->presented().back().controller;
  auto view = ui->contentOf(*captcha);
  view->navigate("https://service.test/qs/captcha_callback?status=1");
  EXPECT_EQ(observer->failedAttempts, 1);
  EXPECT_TRUE(observer->ends.empty());
  view->navigate("https://service.test/qs/captcha_callback?status=0");
  EXPECT_EQ(observer->ends, std::vector<QSBlockPageEnd>{QSBlockPageEnd::CaptchaSolved});
  captchaPage->close();  // already gone: nothing more happens
  EXPECT_EQ(observer->ends.size(), 1u);

  auto blockObserver = std::make_shared<RecordingPageObserver>();
  auto blockPage =
      shown->handleBlockResponse(shown->checkError(blockJson("block")), host, blockObserver);
  ASSERT_NE(blockPage, nullptr);
  blockPage->close();
  EXPECT_EQ(blockObserver->ends, std::vector<QSBlockPageEnd>{QSBlockPageEnd::Closed});
  EXPECT_TRUE(ui->presented().empty());

  const std::size_t gets = fake.http->requestCount();
  shown->reportError("backend blocked a solved request");
  EXPECT_EQ(fake.http->requestCount(), gets + 1);
  EXPECT_EQ(fake.http->requests().back().method, "GET");
}

}  // namespace
}  // namespace qs::testing

#include "block/QSWebViewController.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakePlatform.h"
#include "FakeUI.h"

namespace qs {
namespace {

constexpr const char* kLibraryUA = "Quarrystone Test UA/1.0";
constexpr const char* kMissingStatus =
    "captchaSuccess --> unexpected, there is no *success* parameter in the callback URL";

class RecordingDelegate final : public QSWebViewDelegate {
 public:
  void captchaSuccess() override {
    ++calls;
    if (onCall) onCall();
  }
  int calls = 0;
  std::function<void()> onCall;
};

// One presented controller on the fake platform, over a plain host screen.
struct Harness {
  explicit Harness(
      std::string collectorUrl = "https://collector-APP.qs.test/api/v1/collector/mobile")
      : collector(std::move(collectorUrl)) {
    fake.ui = ui;
    controller = std::make_shared<QSWebViewController>(
        fake.platform(), kLibraryUA, "qs.test", [this] { return collector; },
        [this](const std::string& message) { reports.push_back(message); });
    controller->setDelegate(delegate);
    controller->setBlockResponse(std::make_shared<QSBlockResponse>(Value{{"action", "captcha"}}));
  }

  void present() { ui->present(controller, host, true); }
  std::shared_ptr<fake::FakeWebView> webView() const { return ui->contentOf(*controller); }
  std::size_t loadCount() const { return ui->webViews().at(0)->loads().size(); }
  std::optional<bool> navigate(const std::string& url) {
    return ui->webViews().at(0)->navigate(url, NavigationType::Other);
  }

  fake::FakePlatform fake;
  std::shared_ptr<fake::FakeUI> ui = std::make_shared<fake::FakeUI>();
  ViewController host;
  std::string collector;
  std::vector<std::string> reports;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QSWebViewController> controller;
};

TEST(QSWebViewController, LoadsThePageFullScreenWithTheServiceBaseUrl) {
  Harness h;
  h.controller->setBlockResponse(std::make_shared<QSBlockResponse>(
      Value{{"action", "block"}, {"page", "PHA+aGk8L3A+"}}));  // "<p>hi</p>"
  h.present();
  ASSERT_EQ(h.ui->webViews().size(), 1u);
  auto view = h.webView();
  ASSERT_EQ(view, h.ui->webViews()[0]);
  EXPECT_EQ(view->frame().width, 375);
  EXPECT_EQ(view->frame().height, 667);
  ASSERT_EQ(view->loads().size(), 1u);
  EXPECT_EQ(view->loads()[0].html, "<p>hi</p>");
  EXPECT_EQ(view->loads()[0].baseUrl, "https://qs.test");
  EXPECT_EQ(h.controller->baseUrl(), "https://qs.test");

  // Ordinary navigations are logged and allowed; only the callback is taken.
  EXPECT_EQ(h.navigate("https://qs.test/"), true);
  EXPECT_EQ(h.navigate("https://qs.test/help?status=0"), true);
  EXPECT_TRUE(h.fake.log->contains("Loading URL :https://qs.test/help?status=0"));
  EXPECT_EQ(h.loadCount(), 1u);
  EXPECT_EQ(h.delegate->calls, 0);
}

TEST(QSWebViewController, SolvedCaptchaTellsTheDelegateOnceThenDismisses) {
  Harness h;
  bool presentedDuringCall = false;
  h.delegate->onCall = [&] { presentedDuringCall = h.ui->isPresented(*h.controller); };
  h.present();

  EXPECT_EQ(h.navigate("https://qs.test/qs/captcha_callback?status=0"), false);
  EXPECT_EQ(h.delegate->calls, 1);
  EXPECT_TRUE(presentedDuringCall);
  EXPECT_FALSE(h.ui->isPresented(*h.controller));
  ASSERT_EQ(h.ui->dismissed().size(), 1u);
  EXPECT_TRUE(h.ui->dismissed()[0].animated);
  EXPECT_EQ(h.loadCount(), 1u);
  EXPECT_TRUE(h.fake.log->contains("captchaSuccess --> status: 0"));
  EXPECT_TRUE(h.reports.empty());

  // A delegate that is gone is not called and does not keep the page up.
  Harness orphan;
  orphan.present();
  orphan.delegate.reset();
  EXPECT_EQ(orphan.navigate("https://qs.test/qs/captcha_callback?status=0"), false);
  EXPECT_FALSE(orphan.ui->isPresented(*orphan.controller));
}

TEST(QSWebViewController, FirstStatusItemDecidesReadLeniently) {
  struct Case {
    const char* query;
    bool success;
    const char* logged;
  };
  const Case cases[] = {
      {"status=2", false, "status: 2"},
      {"status=0&status=1", true, "status: 0"},
      {"status=1&status=0", false, "status: 1"},
      {"a=b&status=%30", true, "status: 0"},
      {"st%61tus=%20%2B7x", false, "status:  +7x"},
      {"status=-0", true, "status: -0"},
      {"status=-1", false, "status: -1"},
      {"status=done", true, "status: done"},
      {"status=", true, "status: "},
      {"status", true, "status: (null)"},
      {"status=007abc", false, "status: 007abc"},
      {"status=99999999999999999999", false, "status: 99999999999999999999"},
      {"status=0+1", true, "status: 0+1"},
      {"status=0#status=1", true, "status: 0"},
      {"Status=1&status=0", true, "status: 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.query);
    Harness h;
    h.present();
    EXPECT_EQ(h.navigate(std::string("https://qs.test/qs/captcha_callback?") + c.query), false);
    EXPECT_TRUE(h.fake.log->contains(std::string("captchaSuccess --> ") + c.logged));
    EXPECT_EQ(h.delegate->calls, c.success ? 1 : 0);
    EXPECT_EQ(h.ui->isPresented(*h.controller), !c.success);
    // A failed attempt shows the stored page again.
    EXPECT_EQ(h.loadCount(), c.success ? 1u : 2u);
    EXPECT_TRUE(h.reports.empty());
  }
}

TEST(QSWebViewController, CallbackWithoutStatusIsReportedAndReloads) {
  for (const char* url :
       {"https://qs.test/qs/captcha_callback", "https://qs.test/qs/captcha_callback?success=0",
        "https://qs.test/qs/captcha_callback?status=%zz"}) {
    SCOPED_TRACE(url);
    Harness h;
    h.present();
    EXPECT_EQ(h.navigate(url), false);
    EXPECT_EQ(h.reports, std::vector<std::string>{kMissingStatus});
    EXPECT_EQ(h.fake.log->count(kMissingStatus), 1u);
    EXPECT_EQ(h.delegate->calls, 0);
    EXPECT_EQ(h.loadCount(), 2u);
    EXPECT_TRUE(h.ui->isPresented(*h.controller));
  }
}

TEST(QSWebViewController, CallbackIsRecognisedOnlyOnTheBaseUrlsScheme) {
  Harness h;
  h.present();
  EXPECT_EQ(h.navigate("http://qs.test/qs/captcha_callback?status=0"), true);
  EXPECT_EQ(h.navigate("https://other.test/qs/captcha_callback?status=0"), true);
  EXPECT_EQ(h.delegate->calls, 0);
  EXPECT_EQ(h.loadCount(), 1u);
  // Containment, not a prefix: the callback text anywhere in the URL counts.
  EXPECT_EQ(h.navigate("https://other.test/?status=0&next=https://qs.test/qs/captcha_callback"),
            false);
  EXPECT_EQ(h.delegate->calls, 1);

  // A staging collector moves the page, and so the callback, to plain http;
  // the collector URL is read again at every load.
  Harness s("https://collector-APP.staging.qs.test/api/v1/collector/mobile");
  s.present();
  EXPECT_EQ(s.webView()->loads().back().baseUrl, "http://qs.test");
  EXPECT_EQ(s.navigate("https://qs.test/qs/captcha_callback?status=0"), true);
  EXPECT_EQ(s.navigate("http://qs.test/qs/captcha_callback?status=1"), false);
  s.collector = "https://collector-APP.qs.test/api/v1/collector/mobile";
  EXPECT_EQ(s.navigate("http://qs.test/qs/captcha_callback?status=1"), false);
  EXPECT_EQ(s.webView()->loads().back().baseUrl, "https://qs.test");
  EXPECT_EQ(s.navigate("https://qs.test/qs/captcha_callback?status=0"), false);
  EXPECT_EQ(s.delegate->calls, 1);
}

TEST(QSWebViewController, UserAgentIsRestoredOnlyWhenThereWasOne) {
  Harness h;
  h.fake.store->registerDefaults(Value{{"UserAgent", "HostBrowser/2"}});
  h.present();
  EXPECT_EQ(h.controller->previousUserAgent(), "HostBrowser/2");
  EXPECT_EQ(h.fake.store->objectForKey("UserAgent"), Value(kLibraryUA));
  EXPECT_FALSE(h.fake.store->hasPersisted("UserAgent"));
  h.ui->dismiss(*h.controller, false);
  EXPECT_EQ(h.fake.store->objectForKey("UserAgent"), Value("HostBrowser/2"));
  EXPECT_TRUE(h.fake.log->contains("resetUserAgent to: HostBrowser/2"));

  Harness fresh;
  fresh.present();
  EXPECT_EQ(fresh.controller->previousUserAgent(), "");
  EXPECT_EQ(fresh.navigate("https://qs.test/qs/captcha_callback?status=0"), false);
  EXPECT_FALSE(fresh.ui->isPresented(*fresh.controller));
  EXPECT_EQ(fresh.fake.store->objectForKey("UserAgent"), Value(kLibraryUA));
  EXPECT_FALSE(fresh.fake.log->contains("resetUserAgent"));
}

}  // namespace
}  // namespace qs

#include "block/QSWebViewController.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakePlatform.h"
#include "FakeUI.h"

namespace qs {
namespace {

constexpr const char* kLibraryUA = "Quarrystone Test UA/1.0";
constexpr const char* kCallback = "https://qs.test/qs/captcha_callback";

class RecordingDelegate final : public QSWebViewDelegate {
 public:
  void captchaSuccess() override {
    ++calls;
    if (onCall) onCall();
  }
  int calls = 0;
  std::function<void()> onCall;
};

// One controller on the fake platform, presented over a plain host screen;
// the page is "<p>hi</p>".
struct Harness {
  explicit Harness(std::string url = "https://collector-APP.qs.test/api/v1/collector/mobile")
      : collector(std::move(url)) {
    fake.ui = ui;
    controller = std::make_shared<QSWebViewController>(
        fake.platform(), kLibraryUA, "qs.test", [this] { return collector; },
        [this](const std::string& message) { reports.push_back(message); });
    controller->setDelegate(delegate);
    controller->setBlockResponse(
        std::make_shared<QSBlockResponse>(Value{{"action", "captcha"}, {"page", "PHA+aGk8L3A+"}}));
  }

  void present() { ui->present(controller, host, true); }
  const std::vector<fake::FakeWebView::Load>& loads() const {
    return ui->webViews().at(0)->loads();
  }
  std::optional<bool> navigate(const std::string& url) {
    return ui->webViews().at(0)->navigate(url);
  }
  bool presented() const { return ui->isPresented(*controller); }

  fake::FakePlatform fake;
  std::shared_ptr<fake::FakeUI> ui = std::make_shared<fake::FakeUI>();
  ViewController host;
  std::string collector;
  std::vector<std::string> reports;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QSWebViewController> controller;
};

TEST(QSWebViewController, SolvedCaptchaTellsTheDelegateOnceThenDismisses) {
  Harness h;
  bool presentedDuringCall = false;
  h.delegate->onCall = [&] { presentedDuringCall = h.presented(); };
  h.present();
  auto view = h.ui->contentOf(*h.controller);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(view->frame().width, 375);
  EXPECT_EQ(view->frame().height, 667);
  ASSERT_EQ(h.loads().size(), 1u);
  EXPECT_EQ(h.loads()[0].html, "<p>hi</p>");
  EXPECT_EQ(h.loads()[0].baseUrl, "https://qs.test");

  EXPECT_EQ(h.navigate("https://qs.test/help?status=0"), true);
  EXPECT_EQ(h.navigate(std::string(kCallback) + "?status=0"), false);
  EXPECT_EQ(h.delegate->calls, 1);
  EXPECT_TRUE(presentedDuringCall);
  EXPECT_FALSE(h.presented());
  ASSERT_EQ(h.ui->dismissed().size(), 1u);
  EXPECT_TRUE(h.ui->dismissed()[0].animated);
  EXPECT_EQ(h.loads().size(), 1u);
  EXPECT_TRUE(h.fake.log->contains("Loading URL :https://qs.test/help?status=0"));
  EXPECT_TRUE(h.fake.log->contains("captchaSuccess --> status: 0"));

  // A delegate that is gone is not called and does not keep the page up.
  Harness orphan;
  orphan.present();
  orphan.delegate.reset();
  EXPECT_EQ(orphan.navigate(std::string(kCallback) + "?status=0"), false);
  EXPECT_FALSE(orphan.presented());
}

// The first status item decides, read leniently; a callback without one is
// reported. Anything but a success shows the page again.
TEST(QSWebViewController, CallbackStatusDecidesOrIsReported) {
  const std::string missing =
      "captchaSuccess --> unexpected, there is no *success* parameter in the callback URL";
  struct Case {
    const char* query;
    bool success;
    const char* logged;  // the status as logged; nullptr: reported as missing
  };
  for (const Case& c : {Case{"?status=2", false, "2"},
                        {"?status=0&status=1", true, "0"},
                        {"?Status=1&st%61tus=%20%2B7x", false, " +7x"},
                        {"?status=-0", true, "-0"},
                        {"?status=-1", false, "-1"},
                        {"?status=done", true, "done"},
                        {"?status", true, "(null)"},
                        {"?status=99999999999999999999", false, "99999999999999999999"},
                        {"?status=0+1#status=1", true, "0+1"},
                        {"", false, nullptr},
                        {"?success=0", false, nullptr},
                        {"?status=%zz", false, nullptr}}) {
    SCOPED_TRACE(c.query);
    Harness h;
    h.present();
    EXPECT_EQ(h.navigate(kCallback + std::string(c.query)), false);
    if (c.logged) {
      EXPECT_TRUE(h.fake.log->contains(std::string("captchaSuccess --> status: ") + c.logged));
    }
    EXPECT_EQ(h.reports, c.logged ? std::vector<std::string>{} : std::vector<std::string>{missing});
    EXPECT_EQ(h.delegate->calls, c.success ? 1 : 0);
    EXPECT_EQ(h.presented(), !c.success);
    ASSERT_EQ(h.loads().size(), c.success ? 1u : 2u);
    EXPECT_EQ(h.loads().back().html, "<p>hi</p>");
  }
}

TEST(QSWebViewController, CallbackIsRecognisedOnlyOnTheBaseUrlsScheme) {
  Harness h;
  h.present();
  EXPECT_EQ(h.navigate("http://qs.test/qs/captcha_callback?status=0"), true);
  EXPECT_EQ(h.navigate("https://other.test/qs/captcha_callback?status=0"), true);
  EXPECT_EQ(h.delegate->calls, 0);
  EXPECT_EQ(h.loads().size(), 1u);
  // Containment, not a prefix: the callback text anywhere in the URL counts.
  EXPECT_EQ(h.navigate("https://other.test/?status=0&next=https://qs.test/qs/captcha_callback"),
            false);
  EXPECT_EQ(h.delegate->calls, 1);

  // A staging collector moves the page, and so the callback, to plain http;
  // the collector URL is read again at every load.
  Harness s("https://collector-APP.staging.qs.test/api/v1/collector/mobile");
  s.present();
  EXPECT_EQ(s.loads().back().baseUrl, "http://qs.test");
  EXPECT_EQ(s.navigate(std::string(kCallback) + "?status=0"), true);
  EXPECT_EQ(s.navigate("http://qs.test/qs/captcha_callback?status=1"), false);
  s.collector = "https://collector-APP.qs.test/api/v1/collector/mobile";
  EXPECT_EQ(s.navigate("http://qs.test/qs/captcha_callback?status=1"), false);
  EXPECT_EQ(s.loads().back().baseUrl, "https://qs.test");
  EXPECT_EQ(s.navigate(std::string(kCallback) + "?status=0"), false);
  EXPECT_EQ(s.delegate->calls, 1);
}

TEST(QSWebViewController, UserAgentIsRestoredOnlyWhenThereWasOne) {
  Harness h;
  h.fake.store->registerDefaults(Value{{"UserAgent", "HostBrowser/2"}});
  h.present();
  EXPECT_EQ(h.fake.store->objectForKey("UserAgent"), Value(kLibraryUA));
  EXPECT_FALSE(h.fake.store->hasPersisted("UserAgent"));
  h.ui->dismiss(*h.controller, false);
  EXPECT_EQ(h.fake.store->objectForKey("UserAgent"), Value("HostBrowser/2"));
  EXPECT_TRUE(h.fake.log->contains("resetUserAgent to: HostBrowser/2"));

  Harness fresh;
  fresh.present();
  EXPECT_EQ(fresh.navigate(std::string(kCallback) + "?status=0"), false);
  EXPECT_FALSE(fresh.presented());
  EXPECT_EQ(fresh.fake.store->objectForKey("UserAgent"), Value(kLibraryUA));
  EXPECT_FALSE(fresh.fake.log->contains("resetUserAgent"));
}

}  // namespace
}  // namespace qs

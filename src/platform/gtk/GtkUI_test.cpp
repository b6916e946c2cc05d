// The block/captcha controller in the real web engine. Needs an X display:
// without one the test program starts its own Xvfb server.
#include "quarrystone/gtk/GtkUI.h"
#include "GtkWebView.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "FakePlatform.h"
#include "XvfbDisplay.h"
#include "block/QSWebViewController.h"

namespace qs {
namespace {

constexpr const char* kLibraryUA = "QuarrystoneTest/1.0 (X11; Scale/1.00)";

const auto* const kDisplay = ::testing::AddGlobalTestEnvironment(new test::XvfbDisplay);

class CountingDelegate final : public QSWebViewDelegate {
 public:
  void captchaSuccess() override { ++calls; }
  int calls = 0;
};

class RecordingObserver final : public QSBlockPageObserver {
 public:
  void captchaAttemptFailed() override { ++failedAttempts; }
  void blockPageEnded(QSBlockPageEnd end) override { ends.push_back(end); }
  int failedAttempts = 0;
  std::vector<QSBlockPageEnd> ends;
};

// A host window with the block/captcha controller presented over it.
class GtkUITest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake.ui = makeGtkUI(fake.store);
    hostWindow = GTK_WINDOW(gtk_window_new());
    gtk_window_present(hostWindow);
    host = std::make_unique<GtkHostViewController>(hostWindow);
  }
  void TearDown() override {
    controller.reset();
    fake.ui.reset();
    if (hostWindow != nullptr) gtk_window_destroy(hostWindow);
    // Let the destroyed windows' pending work run before the next case.
    for (int i = 0; i < 1000 && g_main_context_iteration(nullptr, FALSE); ++i) {
    }
  }

  void present(const std::string& action, const std::string& html) {
    controller = std::make_shared<QSWebViewController>(
        fake.platform(), kLibraryUA, "qs.test",
        [] { return std::string("https://collector-APP.qs.test/api/v1/collector/mobile"); },
        [](const std::string&) {});
    controller->setDelegate(delegate);
    controller->setObserver(observer);
    gchar* page = g_base64_encode(reinterpret_cast<const guchar*>(html.data()), html.size());
    controller->setBlockResponse(
        std::make_shared<QSBlockResponse>(Value{{"action", action}, {"page", page}}));
    g_free(page);
    fake.ui->present(controller, *host, true);
    auto* view = dynamic_cast<GtkWebView*>(controller->webview().get());
    ASSERT_NE(view, nullptr);
    webView = view->widget();
    window = GTK_WINDOW(gtk_widget_get_root(GTK_WIDGET(webView)));
    g_weak_ref_init(&windowRef, window);
  }
  bool windowGone() {
    GObject* alive = G_OBJECT(g_weak_ref_get(&windowRef));
    if (alive) g_object_unref(alive);
    return alive == nullptr;
  }

  fake::FakePlatform fake;
  GtkWindow* hostWindow = nullptr;
  std::unique_ptr<GtkHostViewController> host;
  std::shared_ptr<CountingDelegate> delegate = std::make_shared<CountingDelegate>();
  std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
  std::shared_ptr<QSWebViewController> controller;
  WebKitWebView* webView = nullptr;
  GtkWindow* window = nullptr;
  GWeakRef windowRef;
};

TEST_F(GtkUITest, SolvedCaptchaInThePageTellsTheDelegateAndClosesTheWindow) {
  present("captcha",
          "<p>solving</p><script>setTimeout(function () {"
          "  location.href = '/qs/captcha_callback?status=0'; }, 50);</script>");
  EXPECT_TRUE(gtk_window_get_modal(window));
  EXPECT_EQ(gtk_window_get_transient_for(window), hostWindow);

  ASSERT_TRUE(test::iterateUntil([&] { return delegate->calls > 0; }));
  EXPECT_TRUE(gtk_widget_get_visible(GTK_WIDGET(hostWindow)));
  // The host may close its own window before the dismissed one is cleaned up.
  gtk_window_destroy(std::exchange(hostWindow, nullptr));
  EXPECT_TRUE(test::iterateUntil([&] { return windowGone(); }));
  EXPECT_EQ(delegate->calls, 1);
  EXPECT_EQ(observer->ends, std::vector<QSBlockPageEnd>{QSBlockPageEnd::CaptchaSolved});
  EXPECT_TRUE(fake.log->contains("Loading URL :https://qs.test/qs/captcha_callback?status=0"));
}

// The window names itself and offers its own ways out: the header bar's
// close control (the window's "window.close" action) and Escape.
TEST_F(GtkUITest, PageWindowHasATitleAndClosesByItsControlOrEscape) {
  present("block", "<html><head><title>Access check</title></head><body>blocked</body></html>");
  EXPECT_STREQ(gtk_window_get_title(window), "Security check");
  GtkWidget* bar = gtk_window_get_titlebar(window);
  ASSERT_TRUE(GTK_IS_HEADER_BAR(bar));
  EXPECT_TRUE(gtk_header_bar_get_show_title_buttons(GTK_HEADER_BAR(bar)));
  // The page's own title replaces the default once it has loaded.
  EXPECT_TRUE(test::iterateUntil(
      [&] { return std::string(gtk_window_get_title(window)) == "Access check"; }));
  ASSERT_TRUE(gtk_widget_activate_action(GTK_WIDGET(window), "window.close", nullptr));
  EXPECT_TRUE(test::iterateUntil([&] { return windowGone(); }));
  EXPECT_EQ(observer->ends, std::vector<QSBlockPageEnd>{QSBlockPageEnd::Closed});

  observer = std::make_shared<RecordingObserver>();
  present("captcha", "<p>captcha</p>");
  // Escape is bound to the same action.
  GtkShortcutTrigger* wanted = gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType(0));
  GtkShortcutAction* escape = nullptr;
  GListModel* controllers = gtk_widget_observe_controllers(GTK_WIDGET(window));
  for (guint i = 0; i < g_list_model_get_n_items(controllers) && !escape; ++i) {
    auto* item = static_cast<GObject*>(g_list_model_get_item(controllers, i));
    auto* shortcuts = GTK_IS_SHORTCUT_CONTROLLER(item) ? G_LIST_MODEL(item) : nullptr;
    for (guint j = 0; shortcuts && j < g_list_model_get_n_items(shortcuts) && !escape; ++j) {
      auto* shortcut = static_cast<GtkShortcut*>(g_list_model_get_item(shortcuts, j));
      if (gtk_shortcut_trigger_equal(gtk_shortcut_get_trigger(shortcut), wanted)) {
        escape = gtk_shortcut_get_action(shortcut);
      }
      g_object_unref(shortcut);
    }
    g_object_unref(item);
  }
  g_object_unref(wanted);
  g_object_unref(controllers);
  ASSERT_NE(escape, nullptr);
  ASSERT_TRUE(
      gtk_shortcut_action_activate(escape, GtkShortcutActionFlags(0), GTK_WIDGET(window), nullptr));
  EXPECT_TRUE(test::iterateUntil([&] { return windowGone(); }));
  EXPECT_EQ(observer->ends, std::vector<QSBlockPageEnd>{QSBlockPageEnd::Closed});
  EXPECT_EQ(delegate->calls, 0);
}

// Closed as soon as it is on screen, with the UI holding the only reference
// to the window and the controller. The toolkit's surface for the window can
// outlive the window and still compute its size through it, so the window
// must live at least as long as its surface.
TEST_F(GtkUITest, PageClosedAsSoonAsItAppearsOutlivesItsSurface) {
  for (int iterations = 0; iterations < 3; ++iterations) {
    observer = std::make_shared<RecordingObserver>();
    present("captcha", "<p>captcha</p>");
    controller.reset();
    GWeakRef surface;
    g_weak_ref_init(&surface, gtk_native_get_surface(GTK_NATIVE(window)));
    for (int i = 0; i < iterations; ++i) g_main_context_iteration(nullptr, FALSE);
    gtk_window_close(window);
    bool windowBeforeSurface = false;
    EXPECT_TRUE(test::iterateUntil([&] {
      GObject* alive = G_OBJECT(g_weak_ref_get(&surface));
      if (alive) g_object_unref(alive);
      windowBeforeSurface = windowBeforeSurface || (alive != nullptr && windowGone());
      return alive == nullptr && windowGone();
    }));
    g_weak_ref_clear(&surface);
    EXPECT_FALSE(windowBeforeSurface) << "closed after " << iterations << " iterations";
    EXPECT_EQ(observer->ends, std::vector<QSBlockPageEnd>{QSBlockPageEnd::Closed});
  }
}

TEST_F(GtkUITest, FailedCaptchaReloadsThePageWhichSeesTheLibraryUserAgent) {
  // The page reports the user agent it sees in the callback URL.
  present("captcha",
          "<script>location.href = '/qs/captcha_callback?status=1&ua=' + "
          "encodeURIComponent(navigator.userAgent);</script>");
  // A second callback can only come from the page loaded again.
  ASSERT_TRUE(
      test::iterateUntil([&] { return fake.log->count("captchaSuccess --> status: 1") >= 2; }));
  EXPECT_EQ(delegate->calls, 0);
  EXPECT_GE(observer->failedAttempts, 2);
  EXPECT_TRUE(observer->ends.empty());
  EXPECT_FALSE(windowGone());
  EXPECT_TRUE(
      fake.log->contains("Loading URL :https://qs.test/qs/captcha_callback?status=1&ua="
                         "QuarrystoneTest%2F1.0%20(X11%3B%20Scale%2F1.00)"));
  fake.ui->dismiss(*controller, false);
  EXPECT_TRUE(test::iterateUntil([&] { return windowGone(); }));
  // The controller is still alive here, but its page is stopped.
  EXPECT_TRUE(test::iterateUntil([&] {
    const char* uri = webkit_web_view_get_uri(webView);
    return uri != nullptr && std::string(uri) == "about:blank";
  }));
}

TEST_F(GtkUITest, BlockPageIsRenderedAndClosingItRestoresTheUserAgent) {
  fake.store->registerDefaults(Value{{"UserAgent", "HostBrowser/2"}});
  present("block",
          "<html><body style='margin:0;background:#1f6f5c;color:white'>"
          "<h1 style='font:bold 40px sans-serif;padding:40px'>Access blocked</h1>"
          "<p style='padding:40px'>Quarrystone test block page</p></body></html>");
  ASSERT_TRUE(test::iterateUntil([&] {
    return !webkit_web_view_is_loading(webView) &&
           webkit_web_view_get_estimated_load_progress(webView) >= 1.0 &&
           gtk_widget_get_width(GTK_WIDGET(webView)) > 0;
  }));

  std::pair<bool, GdkTexture*> shot{false, nullptr};  // finished, texture
  webkit_web_view_get_snapshot(
      webView, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
      [](GObject* source, GAsyncResult* res, gpointer data) {
        auto* out = static_cast<std::pair<bool, GdkTexture*>*>(data);
        *out = {true, webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), res, nullptr)};
      },
      &shot);
  ASSERT_TRUE(test::iterateUntil([&] { return shot.first; }));
  GdkTexture* snapshot = shot.second;
  ASSERT_NE(snapshot, nullptr);

  // The window is phone-screen sized and the page's background fills it.
  int width = gdk_texture_get_width(snapshot);
  int height = gdk_texture_get_height(snapshot);
  EXPECT_EQ(width, 375);
  EXPECT_EQ(height, 667);
  std::vector<guchar> pixels(static_cast<std::size_t>(width) * height * 4);
  gdk_texture_download(snapshot, pixels.data(), static_cast<gsize>(width) * 4);
  const guchar* corner = &pixels[(static_cast<std::size_t>(height - 5) * width + 5) * 4];
  // Downloaded as native-endian B8G8R8A8 premultiplied.
  EXPECT_EQ(corner[2], 0x1f);
  EXPECT_EQ(corner[1], 0x6f);
  EXPECT_EQ(corner[0], 0x5c);
  g_object_unref(snapshot);

  EXPECT_EQ(fake.store->objectForKey("UserAgent"), Value(kLibraryUA));
  gtk_window_close(window);
  EXPECT_TRUE(test::iterateUntil([&] { return windowGone(); }));
  EXPECT_EQ(fake.store->objectForKey("UserAgent"), Value("HostBrowser/2"));
  EXPECT_TRUE(fake.log->contains("resetUserAgent to: HostBrowser/2"));
  EXPECT_EQ(delegate->calls, 0);
}

}  // namespace
}  // namespace qs

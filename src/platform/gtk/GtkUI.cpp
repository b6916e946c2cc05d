#include "quarrystone/gtk/GtkUI.h"

#include <algorithm>
#include <vector>

#include "GtkWebView.h"

namespace qs {

namespace {

// What is left of a dismissed controller until the main loop comes round:
// its window is destroyed there, not inside a web view callback that may
// have started the dismissal.
struct Retired {
  GtkWindow* window;  // one reference
  std::shared_ptr<ViewController> controller;
};

// The window's own way out, whatever the window manager offers: a header
// bar with a title and a close control, and Escape; both ask the window to
// close, which dismisses its controller like any other close request.
constexpr const char* kWindowTitle = "Security check";

void decorate(GtkWindow* window) {
  gtk_window_set_title(window, kWindowTitle);
  GtkWidget* bar = gtk_header_bar_new();
  gtk_header_bar_set_show_title_buttons(GTK_HEADER_BAR(bar), TRUE);
  gtk_header_bar_set_decoration_layout(GTK_HEADER_BAR(bar), ":close");
  gtk_window_set_titlebar(window, bar);

  GtkEventController* keys = gtk_shortcut_controller_new();
  gtk_shortcut_controller_set_scope(GTK_SHORTCUT_CONTROLLER(keys), GTK_SHORTCUT_SCOPE_MANAGED);
  gtk_shortcut_controller_add_shortcut(
      GTK_SHORTCUT_CONTROLLER(keys),
      gtk_shortcut_new(gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType(0)),
                       gtk_named_action_new("window.close")));
  gtk_widget_add_controller(GTK_WIDGET(window), keys);
}

// Follows the page's own title while it has one.
void onPageTitle(WebKitWebView* view, GParamSpec*, gpointer window) {
  const char* title = webkit_web_view_get_title(view);
  gtk_window_set_title(GTK_WINDOW(window), title && *title ? title : kWindowTitle);
}

// The toolkit leaves the window's size callback connected to the window's
// surface, and a destroyed surface can still compute its size later (work it
// had pending). Run before the window gives its surface up: from then on the
// surface holds a reference on the window until the surface is finalised.
void holdUntilSurfaceGone(GtkWidget* window, gpointer) {
  GdkSurface* surface = gtk_native_get_surface(GTK_NATIVE(window));
  if (surface == nullptr) return;
  g_object_weak_ref(
      G_OBJECT(surface), [](gpointer held, GObject*) { g_object_unref(held); },
      g_object_ref(window));
}

gboolean destroyRetired(gpointer data) {
  auto* retired = static_cast<Retired*>(data);
  gtk_window_destroy(retired->window);
  g_object_unref(retired->window);
  delete retired;
  return G_SOURCE_REMOVE;
}

// Presents each controller in a modal window of its own. GTK thread only.
class GtkUI final : public UI {
 public:
  explicit GtkUI(std::shared_ptr<KeyValueStore> store) : store_(std::move(store)) {}
  ~GtkUI() override;

  std::shared_ptr<WebView> createWebView(Rect frame) override {
    return std::make_shared<GtkWebView>(frame, store_);
  }
  void setContent(ViewController& controller, std::shared_ptr<WebView> view) override;
  void present(std::shared_ptr<ViewController> controller, ViewController& host,
               bool animated) override;
  void dismiss(ViewController& controller, bool animated) override;

 private:
  struct Presented {
    std::shared_ptr<ViewController> controller;
    GtkWindow* window;  // one reference
    gulong closeHandler;
    gulong destroyHandler;
    std::shared_ptr<GtkWebView> content;
  };

  static gboolean onCloseRequest(GtkWindow* window, gpointer self);
  static void onDestroy(GtkWidget* window, gpointer self);
  std::vector<Presented>::iterator find(const ViewController& controller);
  std::vector<Presented>::iterator findWindow(const GtkWindow* window);
  // Takes the entry out of the list and disconnects it from its window.
  Presented remove(std::vector<Presented>::iterator it);
  void show(Presented& entry);

  const std::shared_ptr<KeyValueStore> store_;
  std::vector<Presented> presented_;
};

GtkUI::~GtkUI() {
  while (!presented_.empty()) {
    Presented entry = remove(presented_.begin());
    gtk_window_destroy(entry.window);
    g_object_unref(entry.window);
  }
}

std::vector<GtkUI::Presented>::iterator GtkUI::find(const ViewController& controller) {
  return std::find_if(presented_.begin(), presented_.end(),
                      [&](const Presented& p) { return p.controller.get() == &controller; });
}

std::vector<GtkUI::Presented>::iterator GtkUI::findWindow(const GtkWindow* window) {
  return std::find_if(presented_.begin(), presented_.end(),
                      [&](const Presented& p) { return p.window == window; });
}

GtkUI::Presented GtkUI::remove(std::vector<Presented>::iterator it) {
  Presented entry = std::move(*it);
  presented_.erase(it);
  g_signal_handler_disconnect(entry.window, entry.closeHandler);
  g_signal_handler_disconnect(entry.window, entry.destroyHandler);
  return entry;
}

void GtkUI::setContent(ViewController& controller, std::shared_ptr<WebView> view) {
  auto it = find(controller);
  if (it == presented_.end()) return;
  it->content = std::dynamic_pointer_cast<GtkWebView>(view);
  show(*it);
}

void GtkUI::show(Presented& entry) {
  if (!entry.content) {
    gtk_window_set_child(entry.window, nullptr);
    return;
  }
  Rect frame = entry.content->frame();
  if (frame.width >= 1 && frame.height >= 1) {
    // The page itself gets the frame; the header bar comes on top of it.
    gtk_widget_set_size_request(GTK_WIDGET(entry.content->widget()), static_cast<int>(frame.width),
                                static_cast<int>(frame.height));
  }
  gtk_window_set_child(entry.window, GTK_WIDGET(entry.content->widget()));
  g_signal_connect_object(entry.content->widget(), "notify::title", G_CALLBACK(onPageTitle),
                          entry.window, GConnectFlags(0));
}

void GtkUI::present(std::shared_ptr<ViewController> controller, ViewController& host,
                    bool /*animated*/) {
  if (!controller || find(*controller) != presented_.end()) return;
  GtkWindow* parent = nullptr;  // one reference when set
  if (auto* gtkHost = dynamic_cast<GtkHostViewController*>(&host)) {
    parent = gtkHost->window();
  } else if (auto it = find(host); it != presented_.end()) {
    parent = GTK_WINDOW(g_object_ref(it->window));
  }

  auto* window = GTK_WINDOW(g_object_ref(gtk_window_new()));
  decorate(window);
  gtk_window_set_modal(window, TRUE);
  gtk_window_set_transient_for(window, parent);
  gtk_window_set_destroy_with_parent(window, TRUE);
  if (parent) g_object_unref(parent);
  gulong close = g_signal_connect(window, "close-request", G_CALLBACK(onCloseRequest), this);
  gulong destroy = g_signal_connect(window, "destroy", G_CALLBACK(onDestroy), this);
  // Needs no UI, so it stays connected: the window may outlive this object.
  g_signal_connect(window, "unrealize", G_CALLBACK(holdUntilSurfaceGone), nullptr);
  presented_.push_back(Presented{controller, window, close, destroy, nullptr});

  controller->viewDidLoad();
  // viewDidLoad may have dismissed it again.
  if (findWindow(window) != presented_.end()) gtk_window_present(window);
}

void GtkUI::dismiss(ViewController& controller, bool animated) {
  auto it = find(controller);
  if (it == presented_.end()) return;
  controller.viewWillDisappear(animated);
  it = find(controller);  // viewWillDisappear may have changed the list
  if (it == presented_.end()) return;
  Presented entry = remove(it);
  if (entry.content) entry.content->close();
  gtk_widget_set_visible(GTK_WIDGET(entry.window), FALSE);
  // Cut off from its parent now: the parent may be gone before the idle runs.
  gtk_window_set_transient_for(entry.window, nullptr);
  g_idle_add_full(G_PRIORITY_DEFAULT, destroyRetired,
                  new Retired{entry.window, std::move(entry.controller)}, nullptr);
}

gboolean GtkUI::onCloseRequest(GtkWindow* window, gpointer self) {
  auto* ui = static_cast<GtkUI*>(self);
  if (auto it = ui->findWindow(window); it != ui->presented_.end()) {
    auto controller = it->controller;
    ui->dismiss(*controller, false);
  }
  return TRUE;  // dismissal destroys the window
}

void GtkUI::onDestroy(GtkWidget* window, gpointer self) {
  // Destroyed from outside, e.g. together with its parent window.
  auto* ui = static_cast<GtkUI*>(self);
  auto it = ui->findWindow(GTK_WINDOW(window));
  if (it == ui->presented_.end()) return;
  auto controller = it->controller;
  controller->viewWillDisappear(false);
  if (it = ui->findWindow(GTK_WINDOW(window)); it != ui->presented_.end()) {
    Presented entry = ui->remove(it);
    if (entry.content) entry.content->close();
    g_object_unref(entry.window);
  }
}

}  // namespace

std::shared_ptr<UI> makeGtkUI(std::shared_ptr<KeyValueStore> store) {
  return std::make_shared<GtkUI>(std::move(store));
}

}  // namespace qs

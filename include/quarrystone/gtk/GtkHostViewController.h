#pragma once

#include <gtk/gtk.h>

#include "quarrystone/platform/UI.h"

namespace qs {

// A host's GTK window as the screen over which the library presents its
// pages: pass it as the host controller to QSManager::handleBlockResponse.
// Holds the window weakly. GTK thread only.
class GtkHostViewController : public ViewController {
 public:
  explicit GtkHostViewController(GtkWindow* window) { g_weak_ref_init(&window_, window); }
  ~GtkHostViewController() override { g_weak_ref_clear(&window_); }
  GtkHostViewController(const GtkHostViewController&) = delete;
  GtkHostViewController& operator=(const GtkHostViewController&) = delete;

  // A new reference to the window (release it with g_object_unref), or null
  // once the window is gone.
  GtkWindow* window() const { return static_cast<GtkWindow*>(g_weak_ref_get(&window_)); }

 private:
  mutable GWeakRef window_;
};

}  // namespace qs

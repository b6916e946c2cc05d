#pragma once

#include <memory>

#include "quarrystone/gtk/GtkHostViewController.h"
#include "quarrystone/platform/KeyValueStore.h"
#include "quarrystone/platform/UI.h"

namespace qs {

// The UI on GTK 4 and WebKitGTK 6: each presented controller gets a modal
// window, transient for the window of the controller it is presented over
// (a GtkHostViewController or a controller presented earlier). Web views take
// their user agent from `store`'s "UserAgent" value. Everything runs on the
// GTK thread, whose GLib main context is the host's context: the host calls
// gtk_init() first and passes g_main_context_default() as the platform's
// host context. Caller-owned.
std::shared_ptr<UI> makeGtkUI(std::shared_ptr<KeyValueStore> store);

}  // namespace qs

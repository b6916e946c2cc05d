// The C interface's GTK entry points (include/quarrystone_gtk.h), built into
// the optional web view component so that the core C library needs no GTK.

#include "c/CHandles.h"
#include "c/CallGuard.h"
#include "quarrystone/gtk/GtkHostViewController.h"
#include "quarrystone/gtk/GtkUI.h"
#include "quarrystone_gtk.h"

using qs::c::guarded;
using qs::c::require;

extern "C" {

qs_status_t qs_platform_options_use_gtk(qs_platform_options_t* options) {
  return guarded(__func__, [&] {
    require(options, "options");
    options->ui = [](std::shared_ptr<qs::KeyValueStore> store) {
      return qs::makeGtkUI(std::move(store));
    };
    return QS_OK;
  });
}

qs_status_t qs_manager_show_block_response(qs_manager_t* manager,
                                           const qs_block_response_t* response, GtkWindow* window) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    require(response, "response");
    require(window, "window");
    // The UI reads the window while presenting and keeps no reference to
    // the controller, so one on the stack is enough.
    qs::GtkHostViewController host(window);
    manager->manager->handleBlockResponse(response->response, host);
    if (response->response->type() == qs::QSBlockResponseTypeForeign) {
      throw qs::c::CallError(QS_ERROR_INVALID_ARGUMENT,
                             "the response is not a block or captcha page");
    }
    return QS_OK;
  });
}

}  // extern "C"

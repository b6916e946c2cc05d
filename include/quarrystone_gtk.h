/* The block and captcha pages of Quarrystone's C interface, shown in GTK 4
   windows. Part of the optional web view component: link quarrystone_gtk
   (pkg-config quarrystone-gtk) as well. The conventions of quarrystone.h
   hold here too. */
#ifndef QUARRYSTONE_GTK_H
#define QUARRYSTONE_GTK_H

#include <gtk/gtk.h>

#include "quarrystone.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Managers made with `options` show their pages in GTK windows. The host
   calls gtk_init() first and passes g_main_context_default() as the main
   context (qs_platform_options_set_main_context), and runs it. */
QS_C_API qs_status_t qs_platform_options_use_gtk(qs_platform_options_t* options);

/* Shows the block or captcha page of `response` in a modal window over
   `window`. When the captcha is solved the new-headers callback brings the
   fresh headers. A FOREIGN response is logged and reported to the service,
   and QS_ERROR_INVALID_ARGUMENT is returned. GTK thread only; the manager
   must have been made with options that use GTK. */
QS_C_API qs_status_t qs_manager_show_block_response(qs_manager_t* manager,
                                                    const qs_block_response_t* response,
                                                    GtkWindow* window);

#ifdef __cplusplus
}
#endif

#endif /* QUARRYSTONE_GTK_H */

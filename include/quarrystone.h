/* Quarrystone's C interface, for hosts written in C or in any language with a
   C foreign-function interface. C11; usable from C++ as well.

   Conventions:
   1. Ownership. Every pointer a function hands back through an out parameter
      or as its result is the caller's and is released by exactly one call,
      named beside the function: qs_settings_free, qs_platform_options_free,
      qs_manager_destroy, qs_headers_free, qs_block_response_free, qs_free
      (for strings). Releasing NULL does nothing. Strings returned by the
      qs_block_response_* accessors and qs_last_error_message belong to the
      library (see each). Strings passed in are copied; the caller keeps them.
   2. Errors. Every call that can fail returns a qs_status_t; QS_OK is zero.
      On failure, out parameters are set to NULL (or left alone for plain
      values) and qs_last_error_message() tells why in English. The message is
      per thread: it describes the last failed call made on the calling
      thread. No C++ exception ever leaves the library; in particular starting
      a manager that has no ready callback returns QS_ERROR_MISSING_CALLBACK.
   3. Null arguments. A NULL handle, string or out pointer where one is needed
      returns QS_ERROR_NULL_ARGUMENT with the parameter's name in the message;
      it never crashes.
   4. Threads. Settings and platform options are plain values: use each from
      one thread at a time. A manager handle may be used from any thread at
      once, except qs_manager_destroy, which must be its last use. The
      callbacks run on the library's network thread (never inside the call
      that caused them); hop to your own thread from there. Pages are shown on
      the GTK thread (quarrystone_gtk.h).
   5. Versions. QS_API_VERSION_MAJOR changes when a function is removed or
      changes meaning, and with it the shared library's SONAME
      (libquarrystone.so.<major>); QS_API_VERSION_MINOR grows when functions
      are added. qs_api_version() tells which one the loaded library has. */
#ifndef QUARRYSTONE_H
#define QUARRYSTONE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QS_C_API __attribute__((visibility("default")))
#else
#define QS_C_API
#endif

#define QS_API_VERSION_MAJOR 1
#define QS_API_VERSION_MINOR 1

typedef enum qs_status_t {
  QS_OK = 0,
  QS_ERROR_NULL_ARGUMENT = 1,    /* a required pointer was NULL */
  QS_ERROR_INVALID_ARGUMENT = 2, /* a value out of range or of the wrong kind */
  QS_ERROR_BAD_JSON = 3,         /* JSON text that does not parse */
  QS_ERROR_MISSING_CALLBACK = 4, /* qs_manager_start without a ready callback */
  QS_ERROR_ALREADY_EXISTS = 5,   /* the shared manager exists with other settings */
  QS_ERROR_OUT_OF_MEMORY = 6,
  QS_ERROR_INTERNAL = 7, /* anything else; the message says what */
  /* 8 to 31 belong to the HTTP integration (quarrystone_http.h). */
  QS_ERROR_WRONG_THREAD = 8,  /* a blocking request on the thread that must show its page */
  QS_ERROR_REQUEST_FAILED = 9 /* a protected request failed; the message says why */
  /* 10 to 31 are reserved for the HTTP integration. */
} qs_status_t;

typedef enum qs_log_level_t {
  QS_LOG_DEBUG = 0,
  QS_LOG_INFO = 1,
  QS_LOG_WARNING = 2,
  QS_LOG_ERROR = 3
} qs_log_level_t;

typedef enum qs_block_response_type_t {
  QS_BLOCK_RESPONSE_BLOCK = 0,
  QS_BLOCK_RESPONSE_CAPTCHA = 1,
  QS_BLOCK_RESPONSE_FOREIGN = 2 /* not the service's block or captcha body */
} qs_block_response_type_t;

typedef struct qs_settings_t qs_settings_t;
typedef struct qs_platform_options_t qs_platform_options_t;
typedef struct qs_manager_t qs_manager_t;
typedef struct qs_block_response_t qs_block_response_t;

/* One header. In an array from qs_manager_headers the last entry is
   {NULL, NULL}. */
typedef struct qs_header_t {
  const char* name;
  const char* value;
} qs_header_t;

/* (QS_API_VERSION_MAJOR << 16) | QS_API_VERSION_MINOR of the loaded library. */
QS_C_API uint32_t qs_api_version(void);

/* Why the calling thread's last failed call failed; "" before any failure.
   Owned by the library; valid until the thread's next failing call. */
QS_C_API const char* qs_last_error_message(void);

/* Releases a string the library returned. */
QS_C_API void qs_free(char* text);

/* ---- Deployment settings: where the service lives. ---- */

/* The compiled-in defaults with the environment's overrides applied
   (QS_COLLECTOR_HOST_PATTERN, QS_WEB_DOMAIN, QS_STORE_PATH, QS_CA_FILE).
   Free with qs_settings_free. */
QS_C_API qs_status_t qs_settings_new(qs_settings_t** out);
QS_C_API void qs_settings_free(qs_settings_t* settings);
/* Host (with ":port") of an app's collector; "{appId}" is replaced by the
   app id. */
QS_C_API qs_status_t qs_settings_set_collector_host_pattern(qs_settings_t* settings,
                                                            const char* pattern);
/* The service's bare web domain (with ":port"). */
QS_C_API qs_status_t qs_settings_set_web_domain(qs_settings_t* settings, const char* domain);
/* The store file; "" means the host application's own file under the user's
   data folder. */
QS_C_API qs_status_t qs_settings_set_store_path(qs_settings_t* settings, const char* path);
/* A PEM file of extra trusted certificate authorities; "" for none. */
QS_C_API qs_status_t qs_settings_set_ca_file(qs_settings_t* settings, const char* path);
/* The collector URL for `app_id`. Free *out with qs_free. */
QS_C_API qs_status_t qs_settings_collector_url(const qs_settings_t* settings, const char* app_id,
                                               char** out);

/* ---- The Linux platform: who the host is and how the library joins it. ---- */

/* One log line, without a line feed, from any thread. `line` is valid during
   the call only. */
typedef void (*qs_log_fn)(void* user_data, qs_log_level_t level, const char* line);

/* Defaults: no bundle facts (the program's name is used), no screen, the
   library's own loop thread, log lines of warning and up to stderr. Free with
   qs_platform_options_free. */
QS_C_API qs_status_t qs_platform_options_new(qs_platform_options_t** out);
QS_C_API void qs_platform_options_free(qs_platform_options_t* options);
/* The host application's identifier ("com.example.app"), name and version;
   NULL leaves a value unset. */
QS_C_API qs_status_t qs_platform_options_set_bundle(qs_platform_options_t* options,
                                                    const char* identifier, const char* name,
                                                    const char* version);
QS_C_API qs_status_t qs_platform_options_set_screen(qs_platform_options_t* options, double width,
                                                    double height, double scale);
/* The GLib main context (a GMainContext*) the host runs on its main thread,
   or NULL for a loop thread of the library's own. Passed as void* so that a
   host without GLib in its build needs no GLib headers. The host must
   iterate the context for the library to make progress. */
QS_C_API qs_status_t qs_platform_options_set_main_context(qs_platform_options_t* options,
                                                          void* gmain_context);
/* Log lines of `level` and up go to `sink` (NULL: stderr). `user_data` must
   stay valid for as long as any manager made with these options lives. */
QS_C_API qs_status_t qs_platform_options_set_log(qs_platform_options_t* options, qs_log_fn sink,
                                                 void* user_data, qs_log_level_t level);

/* ---- The manager. ---- */

/* Called with the headers the host attaches to its own requests; `headers`
   ends with {NULL, NULL} and is valid during the call only. Runs on the
   library's network thread. */
typedef void (*qs_headers_fn)(void* user_data, const qs_header_t* headers, size_t count);

/* A manager of its own, on a fresh Linux platform. `settings` and `options`
   may be NULL for the defaults; they are copied. Destroy with
   qs_manager_destroy, which stops it. */
QS_C_API qs_status_t qs_manager_create(const qs_settings_t* settings,
                                       const qs_platform_options_t* options, qs_manager_t** out);
/* A handle to the process-wide manager. The first call creates it from
   `settings` and `options` (NULL: defaults); a later call with either not
   NULL returns QS_ERROR_ALREADY_EXISTS. qs_manager_destroy releases the
   handle and its callbacks; the process-wide manager itself lives on. */
QS_C_API qs_status_t qs_manager_shared(const qs_settings_t* settings,
                                       const qs_platform_options_t* options, qs_manager_t** out);
/* Releases the handle. No callback of this handle runs once it returns (a
   callback already running is waited for), so do not call it from one. */
QS_C_API void qs_manager_destroy(qs_manager_t* manager);

/* `ready` is called once, the first time the headers are known; `new_headers`
   every later time they change (NULL: not wanted). A NULL `ready` removes the
   callbacks. Replacing them waits for a callback already running. Handles to
   the shared manager share its callbacks: the last one set wins. */
QS_C_API qs_status_t qs_manager_set_callbacks(qs_manager_t* manager, qs_headers_fn ready,
                                              qs_headers_fn new_headers, void* user_data);
/* Starts (or restarts) the library for `app_id`. QS_ERROR_MISSING_CALLBACK
   when no ready callback is set. */
QS_C_API qs_status_t qs_manager_start(qs_manager_t* manager, const char* app_id);
/* Tells the library the application came back to the foreground. */
QS_C_API qs_status_t qs_manager_wakeup(qs_manager_t* manager);
/* The headers to attach to the host's own requests now, as an array ending
   with {NULL, NULL}; *count (if not NULL) gets the number before it. Cheap.
   Free the whole array with one qs_headers_free. */
QS_C_API qs_status_t qs_manager_headers(const qs_manager_t* manager, qs_header_t** out,
                                        size_t* count);
QS_C_API void qs_headers_free(qs_header_t* headers);
/* Parameters merged into every activity the library sends, as a JSON object;
   "{}" clears them. Anything but an object is QS_ERROR_INVALID_ARGUMENT. */
QS_C_API qs_status_t qs_manager_set_custom_parameters(qs_manager_t* manager, const char* json);
/* The HTTP status with which the host's backend answers a blocked request
   (403 by default). */
QS_C_API qs_status_t qs_manager_block_code(const qs_manager_t* manager, int64_t* out);
QS_C_API qs_status_t qs_manager_set_block_code(qs_manager_t* manager, int64_t code);
/* The collector URL of the app id started with ("" before start). Free *out
   with qs_free. */
QS_C_API qs_status_t qs_manager_collector_url(const qs_manager_t* manager, char** out);

/* Debug: ask the service to hand out a token that its backend blocks or
   challenges, and go back to normal tokens. */
QS_C_API qs_status_t qs_manager_force_block_token(qs_manager_t* manager);
QS_C_API qs_status_t qs_manager_force_captcha_token(qs_manager_t* manager);
QS_C_API qs_status_t qs_manager_reset_debug_settings(qs_manager_t* manager);

/* ---- Block responses. ---- */

/* Recognises the body (JSON text) with which the host's backend blocked a
   request. Text that is not JSON is QS_ERROR_BAD_JSON; any JSON value gives
   a response, QS_BLOCK_RESPONSE_FOREIGN when it is not the service's. Free
   with qs_block_response_free; shown with qs_manager_show_block_response
   (quarrystone_gtk.h). Immutable: usable from any thread. */
QS_C_API qs_status_t qs_manager_check_error(qs_manager_t* manager, const char* json,
                                            qs_block_response_t** out);
QS_C_API void qs_block_response_free(qs_block_response_t* response);
/* QS_BLOCK_RESPONSE_FOREIGN for NULL. */
QS_C_API qs_block_response_type_t qs_block_response_type(const qs_block_response_t* response);
/* Owned by the response, valid while it lives; "" when absent and for NULL. */
QS_C_API const char* qs_block_response_uuid(const qs_block_response_t* response);
QS_C_API const char* qs_block_response_vid(const qs_block_response_t* response);
QS_C_API const char* qs_block_response_app_id(const qs_block_response_t* response);
QS_C_API const char* qs_block_response_page(const qs_block_response_t* response);

/* ---- HTTP integration ----
   The one-call protection of the host's libcurl requests and its outcomes
   are declared in quarrystone_http.h (the optional HTTP component). */

#ifdef __cplusplus
}
#endif

#endif /* QUARRYSTONE_H */

/* The one-call protection of a host's libcurl requests, in Quarrystone's C
   interface. Part of the optional HTTP component: link quarrystone_http
   (pkg-config quarrystone-http) as well. The conventions of quarrystone.h
   hold here too, with these additions:
   - The request is the host's own easy handle with its URL, method, body
     (CURLOPT_POSTFIELDS or CURLOPT_COPYPOSTFIELDS), timeouts and TLS options
     set as usual. Its header list and its write, header, read and seek
     callbacks are passed to the call instead of being set on the handle
     (libcurl lets nobody read them back). They are libcurl's own callback
     types, so a host passes the functions it already has.
   - For the declared domains the library sends the manager's headers with a
     copy of the host's list, and when the backend answers with the block
     code and the service's block body it shows the block or captcha page
     over the host's window, waits for the solve and sends the request once
     more. The host's callbacks see the final response only.
   - When a call ends, the handle's header list and callbacks are libcurl's
     defaults again, and following redirects is off: a redirect from the
     backend to another host must not carry the token, so the 3xx answer
     comes back to the host.
   - How the request ended is a qs_http_outcome_t. The qs_status_t says
     whether the call itself worked: QS_OK for every outcome but
     QS_HTTP_FAILED, which comes with QS_ERROR_REQUEST_FAILED (the transfer
     failed, with libcurl's reason, or the page could not be shown) or
     QS_ERROR_WRONG_THREAD. */
#ifndef QUARRYSTONE_HTTP_H
#define QUARRYSTONE_HTTP_H

#include <curl/curl.h>

#include "quarrystone_gtk.h"

#ifdef __cplusplus
extern "C" {
#endif

/* How a protected request ended. The values are fixed. The response the host
   received is the last one the backend sent: the retried request's after a
   solve, otherwise the first. */
typedef enum qs_http_outcome_t {
  QS_HTTP_ALLOWED = 0,        /* sent with the headers; the backend did not block it */
  QS_HTTP_PASSED_THROUGH = 1, /* not a declared domain, or a refusal that is not the
                                 service's block (or is broken): untouched, no page */
  QS_HTTP_BLOCKED = 2,        /* the block page is shown; the block answer is returned */
  QS_HTTP_CAPTCHA_SOLVED = 3, /* the captcha was solved and the request sent once more */
  QS_HTTP_CAPTCHA_FAILED = 4, /* the page ended without a fresh token although it was
                                 answered */
  QS_HTTP_CLOSED_BY_USER = 5, /* the captcha page was closed without an answer */
  QS_HTTP_TIMED_OUT = 6,      /* the deadline passed with the page on screen; it was closed */
  QS_HTTP_LOOP_STOPPED = 7,   /* the retried request was blocked again: not retried once
                                 more, and reported to the service */
  QS_HTTP_NOT_REPLAYABLE = 8, /* solved, but the body cannot be sent again (no seek
                                 callback); the block answer is returned */
  QS_HTTP_FAILED = 9,         /* the transfer failed, or the call was refused */
  QS_HTTP_CANCELLED = 10      /* the host cancelled the request */
} qs_http_outcome_t;

/* "allowed", "passed-through", "captcha-solved", ... for logs; "unknown" for
   a value not listed above. Static strings. */
QS_C_API const char* qs_http_outcome_name(qs_http_outcome_t outcome);

/* ---- The protection: what protected requests share. ---- */

typedef struct qs_protection_t qs_protection_t;

/* The manager whose headers the requests carry (made with options that use
   GTK, quarrystone_gtk.h), the window the pages are shown over (held weakly)
   and the host names of the host's own backend: "api.example.com" matches
   that host, ".example.com" example.com and every name under it; requests to
   other hosts get no header and no block handling. `domains` may be NULL
   when `domain_count` is 0. `deadline_ms` bounds how long a captcha may stay
   on screen (0: 5 minutes). Create on the GTK thread; use from any thread.
   The protection keeps the manager alive. Free with qs_protection_free, also
   while calls are under way: they keep what they need. */
QS_C_API qs_status_t qs_protection_create(qs_manager_t* manager, GtkWindow* window,
                                          const char* const* domains, size_t domain_count,
                                          uint32_t deadline_ms, qs_protection_t** out);
QS_C_API void qs_protection_free(qs_protection_t* protection);

/* ---- Requests. ----
   `headers` is the host's list, read and never changed or freed. `write_fn`
   gets the final response's body (NULL: discarded) and `header_fn` its header
   lines, status line included (NULL: not wanted); each returns the bytes it
   took, anything else aborts the transfer (CURL_WRITEFUNC_PAUSE too: pausing
   is not supported). `read_fn` streams a body the host sends
   (CURLOPT_READFUNCTION's job; NULL: none); such a request is sent again
   after a solve only when `seek_fn` rewinds it to offset 0. `read_fn` and
   `seek_fn` share `read_data`. */

/* Sends the request and blocks the calling thread until it ends, which may
   include a captcha the user takes minutes over (up to the deadline). The
   callbacks run on the calling thread. *outcome and *http_status (of the
   response the host received; 0 when there was none) are required, and set
   on failure too (QS_HTTP_FAILED, 0). Refused with QS_ERROR_WRONG_THREAD on
   the GTK thread, which must show the page: use qs_curl_perform_async there. */
QS_C_API qs_status_t qs_curl_perform(qs_protection_t* protection, CURL* easy,
                                     const struct curl_slist* headers, curl_write_callback write_fn,
                                     void* write_data, curl_write_callback header_fn,
                                     void* header_data, curl_read_callback read_fn,
                                     curl_seek_callback seek_fn, void* read_data,
                                     qs_http_outcome_t* outcome, long* http_status);

/* Called once when an asynchronous request ends. `curl_code` is the last
   transfer's; `detail` says why for the outcomes that need a reason ("" for
   the others) and is valid during the call only. */
typedef void (*qs_curl_done_fn)(void* user_data, qs_http_outcome_t outcome, long http_status,
                                CURLcode curl_code, const char* detail);

/* An asynchronous request, to cancel it. */
typedef struct qs_curl_call_t qs_curl_call_t;

/* Sends the request without blocking: the transfers run on a library worker
   thread, the rest on the calling thread's thread-default GLib context (the
   GTK thread's is fine), which the host must iterate. `done` is called there
   once, never inside this call. Until then `easy`, `headers` and the
   callbacks' data must stay valid and the host must not use `easy`; the
   write, header and read callbacks run on the worker thread or on that
   context, one at a time. `call` may be NULL; otherwise *call is a handle to
   cancel the request with, freed with qs_curl_call_free (at any time:
   freeing does not cancel). */
QS_C_API qs_status_t qs_curl_perform_async(qs_protection_t* protection, CURL* easy,
                                           const struct curl_slist* headers,
                                           curl_write_callback write_fn, void* write_data,
                                           curl_write_callback header_fn, void* header_data,
                                           curl_read_callback read_fn, curl_seek_callback seek_fn,
                                           void* read_data, qs_curl_done_fn done, void* done_data,
                                           qs_curl_call_t** call);

/* Cancels the request: an open page is closed, a transfer under way aborted,
   and `done` hears QS_HTTP_CANCELLED once it has ended. From any thread; it
   takes effect on the request's context. After `done` ran it does nothing. */
QS_C_API qs_status_t qs_curl_cancel(qs_curl_call_t* call);
QS_C_API void qs_curl_call_free(qs_curl_call_t* call);

#ifdef __cplusplus
}
#endif

#endif /* QUARRYSTONE_HTTP_H */

/* qs-c-http-test: the libcurl protection through the C interface, from a
   GTK host in C against the sandbox's backend (run under Xvfb by
   CHttp.CurlProtectionFromC, which checks what the backend received). An
   allowed call from a worker thread, a captcha solved and the request sent
   once more, a cancelled call, the blocking call refused on the GTK thread
   and null arguments. Settings come from the environment (QS_WEB_DOMAIN and
   the others). Exits 0 when every expectation held.

     qs-c-http-test APP_ID SECONDS */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "quarrystone_http.h"

#include "CTestSupport.h"

/* Text the callbacks received. Plain malloc: GLib's slice allocator hands
   memory between threads in ways the race checker cannot follow. */
typedef struct text_t {
  char* data;
  size_t len;
} text_t;

/* One request as the host's callbacks saw it. */
typedef struct reply_t {
  text_t body;
  text_t headers;
  qs_status_t status;
  qs_http_outcome_t outcome;
  long http_status;
  GThread* done_thread;
  volatile gint finished;
} reply_t;

static size_t append(char* data, size_t size, size_t count, void* out) {
  text_t* text = out;
  char* grown = realloc(text->data, text->len + size * count + 1);
  if (grown == NULL) return 0;
  memcpy(grown + text->len, data, size * count);
  text->data = grown;
  text->len += size * count;
  grown[text->len] = '\0';
  return size * count;
}

/* The text, or "" before anything arrived. */
static const char* str(const text_t* text) { return text->data ? text->data : ""; }

static void on_done(void* user_data, qs_http_outcome_t outcome, long http_status,
                    CURLcode curl_code, const char* detail) {
  reply_t* reply = user_data;
  (void)curl_code;
  printf("done: %s, HTTP %ld %s\n", qs_http_outcome_name(outcome), http_status, detail);
  reply->outcome = outcome;
  reply->http_status = http_status;
  reply->done_thread = g_thread_self();
  g_atomic_int_set(&reply->finished, 1);
}

static CURL* backend_request(const char* query, reply_t* reply) {
  const char* domain = getenv("QS_WEB_DOMAIN");
  const char* ca = getenv("QS_CA_FILE");
  char* url = g_strdup_printf("https://%s/api/orders?%s", domain ? domain : "", query);
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url);
  if (ca) curl_easy_setopt(easy, CURLOPT_CAINFO, ca);
  g_free(url);
  memset(reply, 0, sizeof *reply);
  return easy;
}

static void reply_clear(reply_t* reply) {
  free(reply->body.data);
  free(reply->headers.data);
}

/* The blocking form on a host worker thread. */
typedef struct blocking_t {
  qs_protection_t* protection;
  CURL* easy;
  struct curl_slist* headers;
  reply_t* reply;
} blocking_t;

static gpointer perform_blocking(gpointer data) {
  blocking_t* job = data;
  reply_t* reply = job->reply;
  reply->status =
      qs_curl_perform(job->protection, job->easy, job->headers, append, &reply->body, append,
                      &reply->headers, NULL, NULL, NULL, &reply->outcome, &reply->http_status);
  g_atomic_int_set(&reply->finished, 1);
  g_main_context_wakeup(NULL);
  return NULL;
}

static void check_errors(qs_manager_t* manager, GtkWindow* window, qs_protection_t* protection) {
  const char* domains[] = {"localhost", NULL};
  qs_protection_t* none = (qs_protection_t*)&failures; /* must be reset */
  qs_curl_call_t* call = (qs_curl_call_t*)&failures;
  qs_http_outcome_t outcome = QS_HTTP_ALLOWED;
  long http_status = -1;
  reply_t reply;
  CURL* easy = backend_request("case=refused", &reply);

  EXPECT(failed_with(qs_protection_create(NULL, window, domains, 1, 0, &none),
                     QS_ERROR_NULL_ARGUMENT, "qs_protection_create: manager is NULL"));
  EXPECT(none == NULL);
  EXPECT(failed_with(qs_protection_create(manager, window, domains, 2, 0, &none),
                     QS_ERROR_NULL_ARGUMENT, "domains[1] is NULL"));
  EXPECT(failed_with(qs_curl_perform(protection, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL,
                                     NULL, &outcome, &http_status),
                     QS_ERROR_NULL_ARGUMENT, "easy is NULL"));
  EXPECT(outcome == QS_HTTP_FAILED && http_status == 0);
  EXPECT(failed_with(qs_curl_perform(protection, easy, NULL, NULL, NULL, NULL, NULL, NULL, NULL,
                                     NULL, NULL, &http_status),
                     QS_ERROR_NULL_ARGUMENT, "outcome is NULL"));
  EXPECT(failed_with(qs_curl_perform_async(protection, easy, NULL, NULL, NULL, NULL, NULL, NULL,
                                           NULL, NULL, NULL, NULL, &call),
                     QS_ERROR_NULL_ARGUMENT, "qs_curl_perform_async: done is NULL"));
  EXPECT(call == NULL);
  EXPECT(failed_with(qs_curl_cancel(NULL), QS_ERROR_NULL_ARGUMENT, "call is NULL"));
  qs_protection_free(NULL);
  qs_curl_call_free(NULL);
  EXPECT(strcmp(qs_http_outcome_name(QS_HTTP_CAPTCHA_SOLVED), "captcha-solved") == 0);
  EXPECT(strcmp(qs_http_outcome_name((qs_http_outcome_t)99), "unknown") == 0);

  /* Waiting here for a page this very thread must show would never end. */
  EXPECT(failed_with(qs_curl_perform(protection, easy, NULL, append, &reply.body, NULL, NULL, NULL,
                                     NULL, NULL, &outcome, &http_status),
                     QS_ERROR_WRONG_THREAD, "GTK thread"));
  EXPECT(outcome == QS_HTTP_FAILED && reply.body.len == 0);
  curl_easy_cleanup(easy);
  reply_clear(&reply);
}

static void check_allowed(qs_protection_t* protection, const gboolean* late) {
  reply_t reply;
  blocking_t job = {protection, backend_request("case=allowed", &reply), NULL, &reply};
  GThread* worker;
  job.headers = curl_slist_append(NULL, "Accept: application/json");
  worker = g_thread_new("host-worker", perform_blocking, &job);
  EXPECT(wait_for(&reply.finished, 0, late));
  g_thread_join(worker);
  EXPECT(reply.status == QS_OK && reply.outcome == QS_HTTP_ALLOWED);
  EXPECT(reply.http_status == 200);
  EXPECT(strstr(str(&reply.body), "\"orders\"") != NULL);
  EXPECT(strstr(str(&reply.headers), " 200") != NULL);
  curl_slist_free_all(job.headers);
  curl_easy_cleanup(job.easy);
  reply_clear(&reply);
}

static void check_solved(qs_protection_t* protection, const gboolean* late) {
  reply_t reply;
  CURL* easy = backend_request("challenge=once&case=solve&autosolve=1", &reply);
  curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, "qty=2");
  EXPECT(qs_curl_perform_async(protection, easy, NULL, append, &reply.body, append, &reply.headers,
                               NULL, NULL, NULL, on_done, &reply, NULL) == QS_OK);
  EXPECT(!g_atomic_int_get(&reply.finished)); /* never inside the call */
  EXPECT(wait_for(&reply.finished, 0, late));
  EXPECT(reply.outcome == QS_HTTP_CAPTCHA_SOLVED && reply.http_status == 200);
  EXPECT(reply.done_thread == g_thread_self());
  /* The host sees the retried request's answer only. */
  EXPECT(strstr(str(&reply.body), "\"orders\"") != NULL);
  EXPECT(strstr(str(&reply.body), "captcha") == NULL);
  EXPECT(strstr(str(&reply.headers), " 403") == NULL);
  curl_easy_cleanup(easy);
  reply_clear(&reply);
}

static void check_cancelled(qs_protection_t* protection, const gboolean* late) {
  reply_t reply;
  qs_curl_call_t* call = NULL;
  CURL* easy = backend_request("challenge=always&case=cancel", &reply);
  EXPECT(qs_curl_perform_async(protection, easy, NULL, append, &reply.body, NULL, NULL, NULL, NULL,
                               NULL, on_done, &reply, &call) == QS_OK);
  EXPECT(call != NULL && qs_curl_cancel(call) == QS_OK);
  EXPECT(wait_for(&reply.finished, 0, late));
  EXPECT(reply.outcome == QS_HTTP_CANCELLED);
  EXPECT(qs_curl_cancel(call) == QS_OK); /* after the end: nothing happens */
  qs_curl_call_free(call);
  curl_easy_cleanup(easy);
  reply_clear(&reply);
}

int main(int argc, char** argv) {
  const char* domains[] = {"localhost"};
  qs_platform_options_t* options = NULL;
  qs_manager_t* manager = NULL;
  qs_protection_t* protection = NULL;
  GtkWindow* window;
  gboolean late = FALSE;

  if (argc != 3 || !gtk_init_check()) {
    fprintf(stderr, "usage: qs-c-http-test APP_ID SECONDS, with a display\n");
    return 2;
  }
  g_timeout_add_seconds((guint)atoi(argv[2]), on_deadline, &late);
  window = GTK_WINDOW(gtk_window_new());
  gtk_window_present(window);
  EXPECT(qs_platform_options_new(&options) == QS_OK &&
         qs_platform_options_set_main_context(options, g_main_context_default()) == QS_OK &&
         qs_platform_options_use_gtk(options) == QS_OK &&
         qs_manager_create(NULL, options, &manager) == QS_OK &&
         qs_manager_set_callbacks(manager, on_ready, NULL, NULL) == QS_OK &&
         qs_manager_start(manager, argv[1]) == QS_OK);
  EXPECT(wait_for(&ready_count, 0, &late));
  EXPECT(qs_protection_create(manager, window, domains, 1, 0, &protection) == QS_OK);
  if (failures == 0) {
    check_errors(manager, window, protection);
    check_allowed(protection, &late);
    check_solved(protection, &late);
    check_cancelled(protection, &late);
  }
  qs_protection_free(protection);
  qs_manager_destroy(manager);
  qs_platform_options_free(options);
  gtk_window_destroy(window);
  printf("%d failure(s)\n", failures);
  return failures == 0 ? 0 : 1;
}

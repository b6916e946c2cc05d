/* qs-c-captcha-host: the captcha path of the C interface in a GTK host.
   Starts the library on GTK's main context, forces a captcha token, calls
   the sandbox's backend with the library's headers, recognises the blocked
   answer with qs_manager_check_error and shows it over a window with
   qs_manager_show_block_response; the sandbox's page solves itself, and the
   new headers prove it. Settings come from the environment (QS_WEB_DOMAIN
   and the others). Exits 0 when the solved captcha brought new headers. The
   library initialises libcurl for the whole process, so this host does not.

     qs-c-captcha-host APP_ID SECONDS */
#include <curl/curl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "quarrystone_gtk.h"

#include "CTestSupport.h"

/* Written on the library's network thread, read on the GTK thread. */
static volatile gint new_headers_count = 0;

static void on_new_headers(void* user_data, const qs_header_t* headers, size_t count) {
  size_t i;
  (void)user_data;
  for (i = 0; i < count; ++i) printf("new header %s: %s\n", headers[i].name, headers[i].value);
  fflush(stdout);
  g_atomic_int_inc(&new_headers_count);
  g_main_context_wakeup(NULL);
}

static size_t collect(char* data, size_t size, size_t count, void* out) {
  GString* body = out;
  g_string_append_len(body, data, (gssize)(size * count));
  return size * count;
}

/* The host's own blocking call to its backend with the library's headers. */
static long call_backend(qs_manager_t* manager, GString* body) {
  const char* domain = getenv("QS_WEB_DOMAIN");
  const char* ca = getenv("QS_CA_FILE");
  char* url = g_strdup_printf("https://%s/api/orders?autosolve=1", domain ? domain : "");
  struct curl_slist* list = NULL;
  qs_header_t* headers = NULL;
  const qs_header_t* h;
  long status = 0;
  CURL* curl = curl_easy_init();
  if (qs_manager_headers(manager, &headers, NULL) == QS_OK) {
    for (h = headers; h->name != NULL; ++h) {
      char* line = g_strdup_printf("%s: %s", h->name, h->value);
      list = curl_slist_append(list, line);
      g_free(line);
    }
    qs_headers_free(headers);
  }
  curl_easy_setopt(curl, CURLOPT_URL, url);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
  if (ca) curl_easy_setopt(curl, CURLOPT_CAINFO, ca);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 15L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, body);
  if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_slist_free_all(list);
  curl_easy_cleanup(curl);
  g_free(url);
  return status;
}

static int fail(const char* what) {
  fprintf(stderr, "qs-c-captcha-host: %s (%s)\n", what, qs_last_error_message());
  return 0;
}

int main(int argc, char** argv) {
  qs_settings_t* settings = NULL;
  qs_platform_options_t* options = NULL;
  qs_manager_t* manager = NULL;
  qs_block_response_t* response = NULL;
  GtkWindow* window = NULL;
  GString* body = g_string_new(NULL);
  gboolean late = FALSE;
  gint before;
  long status;
  int64_t block_code = 0;
  int ok = 0;

  if (argc != 3) {
    fprintf(stderr, "usage: qs-c-captcha-host APP_ID SECONDS\n");
    return 2;
  }
  if (!gtk_init_check()) {
    fprintf(stderr, "qs-c-captcha-host: no display\n");
    return 2;
  }
  g_timeout_add_seconds((guint)atoi(argv[2]), on_deadline, &late);
  window = GTK_WINDOW(gtk_window_new());
  gtk_window_present(window);

  if (qs_settings_new(&settings) != QS_OK || qs_platform_options_new(&options) != QS_OK ||
      qs_platform_options_set_bundle(options, "com.example.c-captcha", "C Captcha", "1.0") !=
          QS_OK ||
      qs_platform_options_set_main_context(options, g_main_context_default()) != QS_OK ||
      qs_platform_options_use_gtk(options) != QS_OK ||
      qs_manager_create(settings, options, &manager) != QS_OK ||
      qs_manager_set_callbacks(manager, on_ready, on_new_headers, NULL) != QS_OK ||
      qs_manager_start(manager, argv[1]) != QS_OK) {
    fail("setting up the manager failed");
    goto done;
  }
  if (!wait_for(&ready_count, 0, &late)) {
    fail("no ready callback");
    goto done;
  }

  before = g_atomic_int_get(&new_headers_count);
  if (qs_manager_force_captcha_token(manager) != QS_OK ||
      !wait_for(&new_headers_count, before, &late)) {
    fail("no captcha token");
    goto done;
  }
  status = call_backend(manager, body);
  qs_manager_block_code(manager, &block_code);
  printf("backend: HTTP %ld\n", status);
  if (status != block_code || qs_manager_check_error(manager, body->str, &response) != QS_OK ||
      qs_block_response_type(response) != QS_BLOCK_RESPONSE_CAPTCHA) {
    fail("the backend's answer is not a captcha");
    goto done;
  }
  printf("captcha page for uuid %s\n", qs_block_response_uuid(response));

  before = g_atomic_int_get(&new_headers_count);
  if (qs_manager_show_block_response(manager, response, window) != QS_OK) {
    fail("showing the page failed");
    goto done;
  }
  if (!wait_for(&new_headers_count, before, &late)) {
    fail("the captcha was not solved in time");
    goto done;
  }
  printf("captcha solved\n");
  fflush(stdout);
  ok = qs_manager_reset_debug_settings(manager) == QS_OK;

done:
  qs_block_response_free(response);
  qs_manager_destroy(manager);
  qs_platform_options_free(options);
  qs_settings_free(settings);
  if (window) gtk_window_destroy(window);
  g_string_free(body, TRUE);
  return ok ? 0 : 1;
}

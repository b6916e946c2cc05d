/* qs-c-host: the smallest C host. Starts the library, waits for the ready
   callback and prints the headers it would attach to its own requests.

     qs-c-host [APP_ID] [SECONDS]

   Where the service lives comes from the environment (QS_COLLECTOR_HOST_PATTERN,
   QS_WEB_DOMAIN, QS_STORE_PATH, QS_CA_FILE). QS_CUSTOM_PARAMETERS, when set,
   is a JSON object sent with every activity. Exits 0 once the headers came,
   1 when they did not in time or a call failed. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <quarrystone.h>

/* Shared between main and the library's network thread. */
struct host {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  int ready; /* guarded by mutex */
};

/* Runs on the library's network thread. */
static void on_ready(void* user_data, const qs_header_t* headers, size_t count) {
  struct host* host = user_data;
  size_t i;
  printf("ready with %zu header(s)\n", count);
  for (i = 0; i < count; ++i) printf("  %s: %s\n", headers[i].name, headers[i].value);
  fflush(stdout);
  pthread_mutex_lock(&host->mutex);
  host->ready = 1;
  pthread_cond_signal(&host->changed);
  pthread_mutex_unlock(&host->mutex);
}

static int check(qs_status_t status, const char* what) {
  if (status != QS_OK)
    fprintf(stderr, "%s failed (%d): %s\n", what, (int)status, qs_last_error_message());
  return status == QS_OK;
}

int main(int argc, char** argv) {
  const char* app_id = argc > 1 ? argv[1] : "c-host-app";
  const int seconds = argc > 2 ? atoi(argv[2]) : 15;
  const char* parameters = getenv("QS_CUSTOM_PARAMETERS");
  struct host host = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0};
  qs_settings_t* settings = NULL;
  qs_platform_options_t* options = NULL;
  qs_manager_t* manager = NULL;
  qs_header_t* headers = NULL;
  struct timespec deadline;
  int ok = 0;

  if (!check(qs_settings_new(&settings), "qs_settings_new") ||
      !check(qs_platform_options_new(&options), "qs_platform_options_new") ||
      !check(qs_platform_options_set_bundle(options, "com.example.c-host", "C Host", "1.0"),
             "qs_platform_options_set_bundle") ||
      !check(qs_manager_create(settings, options, &manager), "qs_manager_create") ||
      !check(qs_manager_set_callbacks(manager, on_ready, NULL, &host),
             "qs_manager_set_callbacks") ||
      (parameters && !check(qs_manager_set_custom_parameters(manager, parameters),
                            "qs_manager_set_custom_parameters")) ||
      !check(qs_manager_start(manager, app_id), "qs_manager_start")) {
    goto done;
  }

  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += seconds;
  pthread_mutex_lock(&host.mutex);
  while (!host.ready) {
    if (pthread_cond_timedwait(&host.changed, &host.mutex, &deadline) != 0) break;
  }
  ok = host.ready;
  pthread_mutex_unlock(&host.mutex);
  if (!ok) {
    printf("no answer within %d seconds\n", seconds);
    goto done;
  }

  /* The headers can also be read at any time, from any thread. */
  if (check(qs_manager_headers(manager, &headers, NULL), "qs_manager_headers")) {
    const qs_header_t* h;
    for (h = headers; h->name != NULL; ++h) printf("header %s: %s\n", h->name, h->value);
    qs_headers_free(headers);
  } else {
    ok = 0;
  }

done:
  qs_manager_destroy(manager);
  qs_platform_options_free(options);
  qs_settings_free(settings);
  return ok ? 0 : 1;
}

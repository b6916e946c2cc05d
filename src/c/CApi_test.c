/* The C interface's failure paths, from C: null arguments, a start without
   the ready callback, JSON that does not parse or is of the wrong kind. Each
   must give its status and a message naming the call, never a crash. */
#define _POSIX_C_SOURCE 200809L

#include <stdlib.h>
#include <unistd.h>

#include "CTestSupport.h"

static void ignore_headers(void* user_data, const qs_header_t* headers, size_t count) {
  (void)user_data;
  (void)headers;
  (void)count;
}

int main(void) {
  char dir[] = "/tmp/qs-c-test.XXXXXX";
  char store[64];
  qs_settings_t* settings = NULL;
  qs_platform_options_t* options = NULL;
  qs_manager_t* manager = NULL;
  qs_block_response_t* response = (qs_block_response_t*)&failures; /* must be reset */
  qs_header_t* headers = NULL;
  size_t count = 99;
  int64_t code = 0;
  char* url = NULL;

  EXPECT(qs_api_version() == ((QS_API_VERSION_MAJOR << 16) | QS_API_VERSION_MINOR));
  EXPECT(mkdtemp(dir) != NULL);
  snprintf(store, sizeof store, "%s/store.sqlite", dir);

  /* Null arguments: a status and the parameter's name. */
  EXPECT(
      failed_with(qs_settings_new(NULL), QS_ERROR_NULL_ARGUMENT, "qs_settings_new: out is NULL"));
  EXPECT(failed_with(qs_manager_start(NULL, "app"), QS_ERROR_NULL_ARGUMENT, "manager is NULL"));
  EXPECT(failed_with(qs_manager_headers(NULL, &headers, &count), QS_ERROR_NULL_ARGUMENT,
                     "manager is NULL"));
  EXPECT(headers == NULL);
  EXPECT(failed_with(qs_settings_set_web_domain(NULL, "x"), QS_ERROR_NULL_ARGUMENT, "settings"));
  EXPECT(qs_block_response_type(NULL) == QS_BLOCK_RESPONSE_FOREIGN);
  EXPECT(strcmp(qs_block_response_uuid(NULL), "") == 0);
  qs_manager_destroy(NULL);
  qs_headers_free(NULL);
  qs_block_response_free(NULL);
  qs_free(NULL);

  EXPECT(qs_settings_new(&settings) == QS_OK);
  EXPECT(failed_with(qs_settings_set_store_path(settings, NULL), QS_ERROR_NULL_ARGUMENT, "path"));
  EXPECT(qs_settings_set_store_path(settings, store) == QS_OK);
  EXPECT(qs_settings_set_collector_host_pattern(settings, "{appId}.collector.invalid") == QS_OK);
  EXPECT(qs_settings_collector_url(settings, "app", &url) == QS_OK);
  EXPECT(url && strcmp(url, "https://app.collector.invalid/api/v1/collector/mobile") == 0);
  qs_free(url);
  EXPECT(qs_platform_options_new(&options) == QS_OK);
  EXPECT(failed_with(qs_platform_options_set_screen(options, 0, 10, 1), QS_ERROR_INVALID_ARGUMENT,
                     "must be > 0"));
  EXPECT(failed_with(qs_platform_options_set_log(options, NULL, NULL, (qs_log_level_t)9),
                     QS_ERROR_INVALID_ARGUMENT, "log level"));
  EXPECT(qs_manager_create(settings, options, &manager) == QS_OK);

  /* No ready callback: an error, not an abort; the manager stays usable. */
  EXPECT(failed_with(qs_manager_start(manager, "app"), QS_ERROR_MISSING_CALLBACK,
                     "qs_manager_start: no ready callback"));
  EXPECT(qs_manager_set_callbacks(manager, NULL, ignore_headers, NULL) == QS_OK);
  EXPECT(failed_with(qs_manager_start(manager, "app"), QS_ERROR_MISSING_CALLBACK, "callback"));
  EXPECT(qs_manager_set_callbacks(manager, ignore_headers, NULL, NULL) == QS_OK);
  EXPECT(failed_with(qs_manager_start(manager, NULL), QS_ERROR_NULL_ARGUMENT, "app_id"));

  /* JSON that does not parse, and JSON of the wrong kind. */
  EXPECT(failed_with(qs_manager_check_error(manager, "{\"action\": ", &response), QS_ERROR_BAD_JSON,
                     "qs_manager_check_error"));
  EXPECT(response == NULL);
  EXPECT(failed_with(qs_manager_set_custom_parameters(manager, "[1, 2]"), QS_ERROR_INVALID_ARGUMENT,
                     "JSON object"));
  EXPECT(
      failed_with(qs_manager_set_custom_parameters(manager, "{oops}"), QS_ERROR_BAD_JSON, "parse"));
  EXPECT(qs_manager_set_custom_parameters(manager, "{\"plan\": \"gold\"}") == QS_OK);

  /* What is recognised, and what is not the service's. */
  EXPECT(qs_manager_check_error(manager, "[]", &response) == QS_OK);
  EXPECT(qs_block_response_type(response) == QS_BLOCK_RESPONSE_FOREIGN);
  qs_block_response_free(response);
  EXPECT(qs_manager_check_error(
             manager, "{\"action\":\"captcha\",\"uuid\":\"u-1\",\"vid\":\"v-1\",\"appId\":\"a\"}",
             &response) == QS_OK);
  EXPECT(qs_block_response_type(response) == QS_BLOCK_RESPONSE_CAPTCHA);
  EXPECT(strcmp(qs_block_response_uuid(response), "u-1") == 0);
  EXPECT(strcmp(qs_block_response_vid(response), "v-1") == 0);
  EXPECT(strcmp(qs_block_response_app_id(response), "a") == 0);
  qs_block_response_free(response);

  /* Before any answer: the placeholder headers, in an array that ends with
     {NULL, NULL} after `count` entries. */
  EXPECT(qs_manager_headers(manager, &headers, &count) == QS_OK);
  EXPECT(headers != NULL && count >= 1 && headers[count].name == NULL);
  EXPECT(headers != NULL && headers[0].name != NULL && headers[0].value != NULL);
  qs_headers_free(headers);
  EXPECT(qs_manager_set_block_code(manager, 429) == QS_OK);
  EXPECT(qs_manager_block_code(manager, &code) == QS_OK && code == 429);
  EXPECT(failed_with(qs_manager_block_code(manager, NULL), QS_ERROR_NULL_ARGUMENT, "out"));

  qs_manager_destroy(manager);
  qs_platform_options_free(options);
  qs_settings_free(settings);
  unlink(store);
  {
    char command[96];
    snprintf(command, sizeof command, "rm -rf '%s'", dir);
    EXPECT(system(command) == 0);
  }
  if (failures == 0) printf("all C interface checks passed\n");
  return failures == 0 ? 0 : 1;
}

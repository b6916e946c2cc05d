#include "DemoBackend.h"

#include <curl/curl.h>

namespace demo {

namespace {
size_t collect(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}
}  // namespace

BackendAnswer callBackend(const qs::URLRequest& request, const std::string& caFile) {
  BackendAnswer answer;
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    answer.error = "curl_easy_init failed";
    return answer;
  }
  curl_slist* headers = nullptr;
  for (const auto& [name, value] : request.headers) {
    headers = curl_slist_append(headers, (name + ": " + value).c_str());
  }
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
  if (!caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
  CURLcode code = curl_easy_perform(curl);
  if (code != CURLE_OK) {
    answer.error = curl_easy_strerror(code);
  } else {
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return answer;
}

}  // namespace demo

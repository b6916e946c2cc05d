#include "network/QSPostOperation.h"

#include <utility>

#include "quarrystone/Constants.h"

namespace qs {

const char* const kFormSubmitContentType = "application/x-www-form-urlencoded; charset=utf-8";
const char* const kJsonContentType = "application/json";

QSPostOperation::QSPostOperation(HttpClient& http, std::string userAgent, std::string requestURL,
                                 std::optional<std::string> postData, std::string activityType,
                                 std::function<void()> onTaskStart)
    : http_(http),
      onTaskStart_(std::move(onTaskStart)),
      userAgent_(std::move(userAgent)),
      postData_(std::move(postData)),
      requestURL_(std::move(requestURL)),
      activityType_(std::move(activityType)) {}

void QSPostOperation::forceBlockToken() { httpHeaders_ = HeaderMap{{"X-QS-SIMULATE", "block"}}; }

void QSPostOperation::forceCaptchaToken() {
  httpHeaders_ = HeaderMap{{"X-QS-SIMULATE", "captcha"}};
}

void QSPostOperation::main() {
  HttpRequest request;
  request.method = "POST";
  request.url = requestURL_;
  request.timeoutSeconds = 5.0;
  request.headers = sessionHeaders(userAgent_, httpHeaders_);
  setRequestHeader(request.headers, "Content-Type", kFormSubmitContentType);
  // std::string holds the UTF-8 bytes, so its size is the byte count.
  setRequestHeader(request.headers, "Content-Length",
                   std::to_string(postData_ ? postData_->size() : 0));
  request.body = postData_;

  // The pending completion keeps this operation (and its delegate) alive
  // until the answer has been handed on.
  auto self = weak_from_this().lock();
  if (onTaskStart_) onTaskStart_();
  http_.send(std::move(request),
             [this, self](std::optional<std::string> data, std::optional<HttpResponse> response,
                          std::optional<HttpError> error) {
               if (auto delegate = delegate_) {
                 delegate->taskCompletedWith(data, activityType_, response, error);
               }
               markCompleted();
             });
}

}  // namespace qs

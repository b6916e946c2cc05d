#include "network/QSGetOperation.h"

#include <utility>

namespace qs {

QSGetOperation::QSGetOperation(HttpClient& http, std::string userAgent, std::string requestURL,
                               std::optional<HeaderMap> headers,
                               std::optional<std::string> contentType)
    : http_(http),
      userAgent_(std::move(userAgent)),
      requestURL_(std::move(requestURL)),
      httpHeaders_(std::move(headers)),
      contentType_(std::move(contentType)) {}

void QSGetOperation::main() {
  HttpRequest request;
  request.method = "GET";
  request.url = requestURL_;
  request.timeoutSeconds = 5.0;
  request.headers = sessionHeaders(userAgent_, httpHeaders_);
  if (contentType_) setRequestHeader(request.headers, "Content-Type", *contentType_);

  // The pending completion keeps this operation (and its delegate) alive
  // until the answer has been handed on.
  auto self = weak_from_this().lock();
  http_.send(std::move(request),
             [this, self](std::optional<std::string> data, std::optional<HttpResponse> response,
                          std::optional<HttpError> error) {
               if (auto delegate = delegate_) delegate->taskCompletedWith(data, response, error);
               markCompleted();
             });
}

}  // namespace qs

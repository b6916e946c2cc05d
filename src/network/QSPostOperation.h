#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "network/QSNetworkOperation.h"
#include "quarrystone/Value.h"
#include "quarrystone/platform/HttpClient.h"

namespace qs {

// Told when a POST completes, on the HTTP client's callback thread.
class QSPostOperationDelegate {
 public:
  virtual ~QSPostOperationDelegate() = default;
  virtual void taskCompletedWith(const std::optional<std::string>& data,
                                 const std::string& activityType,
                                 const std::optional<HttpResponse>& response,
                                 const std::optional<HttpError>& error) = 0;
};

// Posts one form-encoded body to the collector and hands the answer back with
// the activity type it carried. Holds its delegate strongly until finished.
class QSPostOperation : public QSNetworkOperation {
 public:
  // `http` is weak; `userAgent` is the library's user agent; `onTaskStart`
  // runs right before the request is handed to the HTTP client (the collector
  // exchange starts its round-trip stopwatch there).
  QSPostOperation(HttpClient& http, std::string userAgent, std::string requestURL,
                  std::optional<std::string> postData, std::string activityType,
                  std::function<void()> onTaskStart = {});

  // Replace the extra headers with exactly one "X-QS-SIMULATE" entry.
  void forceBlockToken();
  void forceCaptchaToken();

  const std::optional<std::string>& postData() const { return postData_; }
  const std::string& requestURL() const { return requestURL_; }
  const std::string& activityType() const { return activityType_; }
  const std::optional<HeaderMap>& httpHeaders() const { return httpHeaders_; }
  // REQUIRES: called before the operation is queued.
  void setHttpHeaders(std::optional<HeaderMap> headers) { httpHeaders_ = std::move(headers); }
  // REQUIRES: called before the operation is queued; null means nobody is told.
  void setDelegate(std::shared_ptr<QSPostOperationDelegate> delegate) {
    delegate_ = std::move(delegate);
  }
  const std::shared_ptr<QSPostOperationDelegate>& delegate() const { return delegate_; }
  // main() hands the request to the HTTP client and returns.
  bool isAsynchronous() const override { return true; }

 protected:
  void main() override;

 private:
  HttpClient& http_;  // weak
  std::function<void()> onTaskStart_;
  std::string userAgent_;
  std::optional<std::string> postData_;
  std::string requestURL_;
  std::string activityType_;
  std::optional<HeaderMap> httpHeaders_;
  std::shared_ptr<QSPostOperationDelegate> delegate_;
};

}  // namespace qs

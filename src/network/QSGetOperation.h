#pragma once

#include <memory>
#include <optional>
#include <string>

#include "network/QSNetworkOperation.h"
#include "quarrystone/Value.h"
#include "quarrystone/platform/HttpClient.h"

namespace qs {

// Told when a GET completes, on the HTTP client's callback thread.
class QSGetOperationDelegate {
 public:
  virtual ~QSGetOperationDelegate() = default;
  virtual void taskCompletedWith(const std::optional<std::string>& data,
                                 const std::optional<HttpResponse>& response,
                                 const std::optional<HttpError>& error) = 0;
};

// Fetches a URL with optional headers and content type. Holds its delegate
// strongly until finished.
class QSGetOperation : public QSNetworkOperation {
 public:
  QSGetOperation(HttpClient& http, std::string userAgent, std::string requestURL,
                 std::optional<HeaderMap> headers, std::optional<std::string> contentType);

  const std::string& requestURL() const { return requestURL_; }
  const std::optional<HeaderMap>& httpHeaders() const { return httpHeaders_; }
  const std::optional<std::string>& contentType() const { return contentType_; }
  // REQUIRES: called before the operation is queued; null means nobody is told.
  void setDelegate(std::shared_ptr<QSGetOperationDelegate> delegate) {
    delegate_ = std::move(delegate);
  }
  const std::shared_ptr<QSGetOperationDelegate>& delegate() const { return delegate_; }
  // main() hands the request to the HTTP client and returns.
  bool isAsynchronous() const override { return true; }

 protected:
  void main() override;

 private:
  HttpClient& http_;  // weak
  std::string userAgent_;
  std::string requestURL_;
  std::optional<HeaderMap> httpHeaders_;
  std::optional<std::string> contentType_;
  std::shared_ptr<QSGetOperationDelegate> delegate_;
};

}  // namespace qs

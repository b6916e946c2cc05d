#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "quarrystone/Export.h"

namespace qs {

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  // Sent in this order; a later entry of the same name is sent as well, so
  // callers merge duplicates themselves.
  std::vector<std::pair<std::string, std::string>> headers;
  std::optional<std::string> body;  // nullopt: no body
  double timeoutSeconds = 5.0;
  // A longer answer is refused with an error, up front when its announced
  // length says so. The service's answers are a few hundred bytes; a caller
  // fetching something larger raises this for its own request.
  std::size_t maxResponseBytes = std::size_t{1} << 20;
};

struct HttpResponse {
  long statusCode = 0;
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
};

// A transport failure (no answer at all). HTTP error statuses are responses.
struct HttpError {
  enum class Code {
    TimedOut,
    CannotConnect,
    CannotFindHost,
    NotConnected,
    SecureConnectionFailed,
    Cancelled,
    BadURL,
    Other
  };
  Code code = Code::Other;
  // Readable, e.g. "The request timed out." or "Could not connect to the server."
  std::string localizedDescription;
};

// Runs one request at a time per call; never answers from a cache and never
// sends a request a second time on its own (a connection lost before the
// answer is an error). The completion is called exactly once, on the
// client's callback thread.
class QS_EXPORT HttpClient {
 public:
  using Completion =
      std::function<void(std::optional<std::string> body, std::optional<HttpResponse> response,
                         std::optional<HttpError> error)>;
  virtual ~HttpClient() = default;
  virtual void send(HttpRequest request, Completion completion) = 0;
};

}  // namespace qs

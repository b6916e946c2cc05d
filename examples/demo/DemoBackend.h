#pragma once

#include <optional>
#include <string>

#include "quarrystone/URLRequest.h"

namespace demo {

struct BackendAnswer {
  long status = 0;
  std::string body;
  std::string error;  // transport failure, empty otherwise
};

// The host's own HTTP call to its backend, made with libcurl the way an app
// would, carrying whatever headers the request holds. Blocking; short.
BackendAnswer callBackend(const qs::URLRequest& request, const std::string& caFile);

}  // namespace demo

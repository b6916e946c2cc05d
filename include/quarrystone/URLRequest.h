#pragma once

#include <string>
#include <utility>
#include <vector>

#include "quarrystone/Export.h"
#include "quarrystone/Value.h"

namespace qs {

// The parts of a host's outgoing HTTP request that the library touches.
// Header field names compare case-insensitively, as HTTP defines them.
struct QS_EXPORT URLRequest {
  std::string url;
  std::string method = "GET";
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // Sets the field to `value`, replacing any value the request had for it.
  void setValue(const std::string& value, const std::string& field);
  // The field's value, or nullptr.
  const std::string* valueForHTTPHeaderField(const std::string& field) const;
};

// A host HTTP session's configuration: headers added to every request.
struct QS_EXPORT URLSessionConfiguration {
  HeaderMap httpAdditionalHeaders;
};

}  // namespace qs

#include "quarrystone/URLRequest.h"

#include <strings.h>

namespace qs {

namespace {
bool sameField(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}
}  // namespace

void URLRequest::setValue(const std::string& value, const std::string& field) {
  for (auto& [name, existing] : headers) {
    if (sameField(name, field)) {
      existing = value;
      return;
    }
  }
  headers.emplace_back(field, value);
}

const std::string* URLRequest::valueForHTTPHeaderField(const std::string& field) const {
  for (const auto& [name, value] : headers) {
    if (sameField(name, field)) return &value;
  }
  return nullptr;
}

}  // namespace qs

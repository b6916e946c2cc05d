#include "activity/QSUUID.h"

#include <algorithm>
#include <cctype>

namespace qs {

std::string QSUUID::UUID() {
  std::call_once(once_, [this] {
    uuid_ = device_->newUUID();
    std::transform(uuid_.begin(), uuid_.end(), uuid_.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  });
  return uuid_;
}

}  // namespace qs

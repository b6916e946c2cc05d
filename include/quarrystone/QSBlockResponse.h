#pragma once

#include <cstdint>
#include <string>

#include "quarrystone/Export.h"
#include "quarrystone/Value.h"

namespace qs {

enum QSBlockResponseType : std::int64_t {
  QSBlockResponseTypeBlock = 0,
  QSBlockResponseTypeCaptcha = 1,
  QSBlockResponseTypeForeign = 2,
};

// The host backend's block or captcha answer, recognised from its JSON body.
// Immutable after construction; safe to share between threads.
class QS_EXPORT QSBlockResponse {
 public:
  explicit QSBlockResponse(const Value& response);

  std::int64_t type() const { return type_; }
  const std::string& uuid() const { return uuid_; }
  const std::string& vid() const { return vid_; }
  const std::string& appId() const { return appId_; }
  const std::string& pageHtml() const { return pageHtml_; }
  const std::string& collectorUrl() const { return collectorUrl_; }

 private:
  std::int64_t type_ = QSBlockResponseTypeForeign;
  std::string uuid_;
  std::string vid_;
  std::string appId_;
  std::string pageHtml_;
  std::string collectorUrl_;
};

}  // namespace qs

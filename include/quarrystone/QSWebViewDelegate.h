#pragma once

#include "quarrystone/Export.h"

namespace qs {

// Told by the block/captcha web view when a captcha was solved. Called on the
// UI thread.
class QS_EXPORT QSWebViewDelegate {
 public:
  virtual ~QSWebViewDelegate() = default;
  virtual void captchaSuccess() = 0;
};

}  // namespace qs

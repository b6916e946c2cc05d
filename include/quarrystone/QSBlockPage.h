#pragma once

#include "quarrystone/Export.h"

namespace qs {

// How a block or captcha page left the screen.
enum class QSBlockPageEnd {
  // The page's captcha callback reported a solve; the manager was told first
  // and is fetching a fresh token.
  CaptchaSolved,
  // Closed without a solve: by the user (close control, Escape, window
  // manager), by the host, or through QSBlockPage::close().
  Closed,
};

// Told what happens to a page shown by QSManager::handleBlockResponse with
// an observer. UI thread. Held by the page until it ends.
class QS_EXPORT QSBlockPageObserver {
 public:
  virtual ~QSBlockPageObserver() = default;
  // The page reported a wrong captcha answer and was shown afresh.
  virtual void captchaAttemptFailed() {}
  // Called once, when the page leaves the screen.
  virtual void blockPageEnded(QSBlockPageEnd end) = 0;
};

// A page on screen, as its caller sees it. Holds the page weakly. UI thread.
class QS_EXPORT QSBlockPage {
 public:
  virtual ~QSBlockPage() = default;
  // Removes the page if it is still shown; its observer hears Closed.
  virtual void close() = 0;
};

}  // namespace qs

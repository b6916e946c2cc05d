#pragma once

#include "quarrystone/Export.h"
#include "quarrystone/Value.h"

namespace qs {

// Implemented by the host. Both calls arrive on the thread that processed the
// collector's answer (not necessarily the main thread): hop to your UI thread
// yourself.
class QS_EXPORT QSManagerDelegate {
 public:
  virtual ~QSManagerDelegate() = default;
  // Once per process: the first time the headers are known.
  virtual void managerReady(const HeaderMap& headers) = 0;
  // Every later time a new risk cookie changes the headers.
  virtual void newHeaders(const HeaderMap& headers) = 0;
};

}  // namespace qs

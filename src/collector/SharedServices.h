#pragma once

#include <memory>

#include "activity/QSUUID.h"
#include "activity/QSUtils.h"
#include "collector/QSStorage.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// The services one manager's object graph shares: the platform, and the
// store access, utilities, device id and request queue built on it. The
// objects that use them hold a copy; no pointer is null.
struct SharedServices {
  Platform platform;
  std::shared_ptr<QSStorage> storage;
  std::shared_ptr<QSUtils> utils;
  std::shared_ptr<QSUUID> uuid;
  std::shared_ptr<QSNetworkManager> network;
};

}  // namespace qs

#pragma once

#include <memory>

#include "quarrystone/Export.h"
#include "quarrystone/platform/Clock.h"
#include "quarrystone/platform/Crypto.h"
#include "quarrystone/platform/DeviceInfo.h"
#include "quarrystone/platform/HttpClient.h"
#include "quarrystone/platform/KeyValueStore.h"
#include "quarrystone/platform/KeyedArchiver.h"
#include "quarrystone/platform/Log.h"
#include "quarrystone/platform/MainLoop.h"
#include "quarrystone/platform/NotificationCenter.h"
#include "quarrystone/platform/Reachability.h"
#include "quarrystone/platform/UI.h"
#include "quarrystone/platform/WorkerPool.h"

namespace qs {

// Every service the core may ask of the world. Each member is shared by the
// objects built on this platform; `ui` may be null when no UI is linked.
struct Platform {
  std::shared_ptr<Log> log;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<MainLoop> mainLoop;
  std::shared_ptr<NotificationCenter> notifications;
  std::shared_ptr<Reachability> reachability;
  std::shared_ptr<HttpClient> http;
  std::shared_ptr<WorkerPool> workers;
  std::shared_ptr<KeyValueStore> store;
  std::shared_ptr<KeyedArchiver> archiver;
  std::shared_ptr<DeviceInfo> device;
  std::shared_ptr<Crypto> crypto;
  std::shared_ptr<Text> text;
  std::shared_ptr<UI> ui;
};

}  // namespace qs

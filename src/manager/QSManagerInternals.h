#pragma once

#include <memory>

#include "quarrystone/DeploymentSettings.h"
#include "quarrystone/QSManager.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

class QSManagerHelper;
class QSNetworkManager;
class QSStorage;
class QSUUID;
class QSUtils;

// The services of a manager's object graph, which QSManager.h keeps from
// hosts. The library's own classes, its tests, tools and benchmarks reach
// them here; this header is not installed. Any thread: each is set once
// while create() runs and lives as long as the manager.
class QSManagerInternals {
 public:
  static const Platform& platform(const QSManager& manager);
  static const DeploymentSettings& settings(const QSManager& manager);
  static const std::shared_ptr<QSStorage>& storage(const QSManager& manager);
  static const std::shared_ptr<QSUtils>& utils(const QSManager& manager);
  static const std::shared_ptr<QSUUID>& uuid(const QSManager& manager);
  static const std::shared_ptr<QSNetworkManager>& networkManager(const QSManager& manager);
  static QSManagerHelper& managerHelper(const QSManager& manager);
  // Calls the manager's headers listeners (the exchange's thread).
  static void announceHeaders(const QSManager& manager, const HeaderMap& headers);
};

}  // namespace qs

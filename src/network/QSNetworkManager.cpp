#include "network/QSNetworkManager.h"

#include <fmt/format.h>

#include <utility>

#include "quarrystone/Constants.h"

namespace qs {

QSNetworkManager::QSNetworkManager(Platform platform)
    : platform_(std::move(platform)),
      queue_(std::make_shared<QSOperationQueue>(platform_.workers, kMaxPendingOperations)) {}

bool QSNetworkManager::addNetworkOperation(std::shared_ptr<QSNetworkOperation> operation) {
  return queue_->addOperation(std::move(operation));
}

std::string QSNetworkManager::userAgent(DeviceInfo& device) {
  const auto screen = device.mainScreen();
  const double scale = screen ? screen->scale : 1.0;
  return fmt::format("Quarrystone iOS SDK/{} (iPhone; iOS {}; Scale/{:.2f})", QS_SDK_VERSION,
                     device.systemVersion(), scale);
}

std::string QSNetworkManager::userAgent() const {
  if (!platform_.device) {
    return fmt::format("Quarrystone iOS SDK/{} (iPhone; iOS ; Scale/1.00)", QS_SDK_VERSION);
  }
  return userAgent(*platform_.device);
}

}  // namespace qs

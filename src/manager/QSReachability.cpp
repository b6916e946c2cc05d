#include "manager/QSReachability.h"

#include <fmt/format.h>

#include "quarrystone/Constants.h"

namespace qs {

const char* const kQSReachabilityChangedNotification = "kQSReachabilityChangedNotification";

QSReachability::QSReachability(Platform platform, std::unique_ptr<ReachabilityTarget> target)
    : platform_(std::move(platform)), target_(std::move(target)) {}

QSReachability::~QSReachability() { stopNotifier(); }

std::unique_ptr<QSReachability> QSReachability::reachabilityWithHostName(const Platform& platform,
                                                                         const std::string& host) {
  auto target = platform.reachability->targetForHostName(host);
  if (!target) return nullptr;
  return std::unique_ptr<QSReachability>(new QSReachability(platform, std::move(target)));
}

std::unique_ptr<QSReachability> QSReachability::reachabilityWithAddress(
    const Platform& platform, const std::string& address) {
  auto target = platform.reachability->targetForAddress(address);
  if (!target) return nullptr;
  return std::unique_ptr<QSReachability>(new QSReachability(platform, std::move(target)));
}

std::unique_ptr<QSReachability> QSReachability::reachabilityForInternetConnection(
    const Platform& platform) {
  return reachabilityWithAddress(platform, "0.0.0.0");
}

void QSReachability::ReachabilityCallback(ReachabilityTarget* /*target*/, std::uint32_t /*flags*/,
                                          void* info) {
  auto* monitor = static_cast<QSReachability*>(info);
  monitor->platform_.notifications->post(kQSReachabilityChangedNotification, monitor);
}

bool QSReachability::startNotifier() {
  if (!target_) return false;
  ReachabilityTarget* target = target_.get();
  // The target is owned by this monitor and stopped before it goes; once
  // stopped it never calls again and has waited for a call in progress, so
  // the callback never outlives the monitor it points at.
  if (!target_->setCallback(
          [this, target](std::uint32_t flags) { ReachabilityCallback(target, flags, this); })) {
    return false;
  }
  return target_->schedule();
}

void QSReachability::stopNotifier() {
  if (target_) target_->unschedule();
}

QSNetworkStatus QSReachability::networkStatusForFlags(std::uint32_t flags) const {
  auto letter = [flags](std::uint32_t bit, char c) { return (flags & bit) ? c : '-'; };
  platform_.log->write(fmt::format(
      "Reachability Flag Status: {}{} {}{}{}{}{}{}{} {}", letter(kReachabilityFlagsIsWWAN, 'W'),
      letter(kReachabilityFlagsReachable, 'R'), letter(kReachabilityFlagsTransientConnection, 't'),
      letter(kReachabilityFlagsConnectionRequired, 'c'),
      letter(kReachabilityFlagsConnectionOnTraffic, 'C'),
      letter(kReachabilityFlagsInterventionRequired, 'i'),
      letter(kReachabilityFlagsConnectionOnDemand, 'D'),
      letter(kReachabilityFlagsIsLocalAddress, 'l'), letter(kReachabilityFlagsIsDirect, 'd'),
      "networkStatusForFlags"));

  if ((flags & kReachabilityFlagsReachable) == 0) return QSNetworkStatusNotReachable;
  QSNetworkStatus status = (flags & kReachabilityFlagsConnectionRequired) == 0
                               ? QSNetworkStatusViaWiFi
                               : QSNetworkStatusNotReachable;
  if ((flags & (kReachabilityFlagsConnectionOnDemand | kReachabilityFlagsConnectionOnTraffic)) !=
          0 &&
      (flags & kReachabilityFlagsInterventionRequired) == 0) {
    status = QSNetworkStatusViaWiFi;
  }
  if ((flags & kReachabilityFlagsIsWWAN) != 0) status = QSNetworkStatusViaWWAN;
  return status;
}

bool QSReachability::connectionRequired() const {
  auto flags = target_ ? target_->flags() : std::nullopt;
  return flags && (*flags & kReachabilityFlagsConnectionRequired) != 0;
}

QSNetworkStatus QSReachability::currentReachabilityStatus() const {
  auto flags = target_ ? target_->flags() : std::nullopt;
  if (!flags) return QSNetworkStatusNotReachable;
  return networkStatusForFlags(*flags);
}

}  // namespace qs

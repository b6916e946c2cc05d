#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "quarrystone/platform/Platform.h"

namespace qs {

using QSNetworkStatus = std::int64_t;
inline constexpr QSNetworkStatus QSNetworkStatusNotReachable = 0;
inline constexpr QSNetworkStatus QSNetworkStatusViaWiFi = 1;
inline constexpr QSNetworkStatus QSNetworkStatusViaWWAN = 2;

// Watches one route and posts kQSReachabilityChangedNotification, with the
// monitor as the object, on the main thread whenever the platform reports a
// change. Status queries may come from any thread. Owns its platform target.
// stopNotifier() and destruction wait for a change being posted on another
// thread, so the object stays valid for the observers of that post.
class QSReachability {
 public:
  // Null when the platform cannot create a target.
  static std::unique_ptr<QSReachability> reachabilityWithHostName(const Platform& platform,
                                                                  const std::string& host);
  static std::unique_ptr<QSReachability> reachabilityWithAddress(const Platform& platform,
                                                                 const std::string& address);
  // The IPv4 wildcard address: any route to the internet.
  static std::unique_ptr<QSReachability> reachabilityForInternetConnection(
      const Platform& platform);

  ~QSReachability();
  QSReachability(const QSReachability&) = delete;
  QSReachability& operator=(const QSReachability&) = delete;

  // Installs the change callback and schedules the target on the main loop.
  // False if either step fails (the target is then not scheduled).
  bool startNotifier();
  void stopNotifier();

  // Logs the flag line, then classifies the flags.
  QSNetworkStatus networkStatusForFlags(std::uint32_t flags) const;
  bool connectionRequired() const;
  // NotReachable (without logging) when the flags cannot be read.
  QSNetworkStatus currentReachabilityStatus() const;

 private:
  QSReachability(Platform platform, std::unique_ptr<ReachabilityTarget> target);
  // Posts the change notification; the flags are not examined here.
  static void ReachabilityCallback(ReachabilityTarget* target, std::uint32_t flags, void* info);

  const Platform platform_;
  std::unique_ptr<ReachabilityTarget> target_;
};

}  // namespace qs

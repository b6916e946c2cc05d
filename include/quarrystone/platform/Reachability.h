#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "quarrystone/Export.h"

namespace qs {

// Reachability flag bits, as the monitor classifies them.
enum ReachabilityFlags : std::uint32_t {
  kReachabilityFlagsTransientConnection = 0x1,
  kReachabilityFlagsReachable = 0x2,
  kReachabilityFlagsConnectionRequired = 0x4,
  kReachabilityFlagsConnectionOnTraffic = 0x8,
  kReachabilityFlagsInterventionRequired = 0x10,
  kReachabilityFlagsConnectionOnDemand = 0x20,
  kReachabilityFlagsIsLocalAddress = 0x10000,
  kReachabilityFlagsIsDirect = 0x20000,
  kReachabilityFlagsIsWWAN = 0x40000,
};

// One watched route (a host name, or an address such as the IPv4 wildcard
// for "the internet"). Destroying it unschedules it.
//
// Stopping contract: once unschedule() or the destructor returns, the
// callback is never called again. Changes still queued are dropped, and a
// call already running on another thread has returned by then; a call on
// the stopping thread itself (the callback stopping its own target) is not
// waited for and finishes afterwards. So the callback may point at its owner
// without keeping it alive, and an implementation keeps no copy of the
// callback that could run past that point.
// REQUIRES: the stopping thread holds no lock that the callback takes.
class QS_EXPORT ReachabilityTarget {
 public:
  virtual ~ReachabilityTarget() = default;
  // The current flags, or nullopt when they cannot be read. Any thread.
  virtual std::optional<std::uint32_t> flags() = 0;
  // Installs the change callback (replacing any earlier one). False on failure.
  virtual bool setCallback(std::function<void(std::uint32_t flags)> callback) = 0;
  // Starts delivering changes on the main loop. False on failure.
  virtual bool schedule() = 0;
  // Stops delivering changes; see the stopping contract above. Any thread.
  virtual void unschedule() = 0;
};

class QS_EXPORT Reachability {
 public:
  virtual ~Reachability() = default;
  // Null when a target cannot be created.
  virtual std::unique_ptr<ReachabilityTarget> targetForHostName(const std::string& host) = 0;
  // `address` is an IPv4 address in dotted form; "0.0.0.0" means any route.
  virtual std::unique_ptr<ReachabilityTarget> targetForAddress(const std::string& address) = 0;
};

}  // namespace qs

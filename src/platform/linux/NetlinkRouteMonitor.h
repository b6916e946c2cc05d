#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace qs {

// What a route dump read so far says. `done` once the kernel's closing
// message arrived; `failed` when it answered with an error or sent
// something that is not a route dump.
struct RouteScan {
  bool defaultRoute = false;  // an IPv4 or IPv6 unicast route to everything
  bool done = false;
  bool failed = false;
};

// Scans one datagram of a route dump answering request `sequence`. Messages
// of other requests are skipped; a truncated message fails the scan. Pure.
void scanRouteDump(const void* data, std::size_t length, std::uint32_t sequence, RouteScan& scan);

// The kernel's routing socket: a subscription to link, address and route
// changes, and a fresh read of the route table on demand. No thread of its
// own; the owner polls fd() on its loop. Thread contract: one thread at a
// time; defaultRouteExists() from any thread.
class NetlinkRouteMonitor {
 public:
  // Null when the routing socket cannot be opened (no rtnetlink here).
  static std::unique_ptr<NetlinkRouteMonitor> open();
  ~NetlinkRouteMonitor();
  NetlinkRouteMonitor(const NetlinkRouteMonitor&) = delete;
  NetlinkRouteMonitor& operator=(const NetlinkRouteMonitor&) = delete;

  // Readable when a change notice is queued.
  int fd() const { return fd_; }

  // Reads every queued notice without waiting. True when any arrived, or
  // when notices were lost because the queue overflowed: either way the
  // routes must be read again.
  bool drainNotices();

  // Whether the machine has a default route (IPv4 or IPv6), from a dump of
  // the route table on a socket of its own. Nullopt when it cannot be read.
  static std::optional<bool> defaultRouteExists();

 private:
  explicit NetlinkRouteMonitor(int fd) : fd_(fd) {}
  const int fd_;
};

}  // namespace qs

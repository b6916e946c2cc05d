// The kernel's routing socket (rtnetlink). Change notices only say that
// something moved; the answer is always read from a fresh dump of the route
// table, because the kernel does not announce every route it drops (IPv4
// routes of a link that goes down vanish without a notice).
#include "NetlinkRouteMonitor.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

namespace qs {

void scanRouteDump(const void* data, std::size_t length, std::uint32_t sequence, RouteScan& scan) {
  // Messages are read by copy: a datagram buffer carries no alignment promise.
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::size_t offset = 0;
  while (!scan.done && offset < length && length - offset >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    std::memcpy(&header, bytes + offset, sizeof header);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > length - offset) {
      scan.failed = scan.done = true;
      return;
    }
    const unsigned char* payload = bytes + offset + NLMSG_HDRLEN;
    const std::size_t payloadLength = header.nlmsg_len - NLMSG_HDRLEN;
    offset += NLMSG_ALIGN(header.nlmsg_len);
    if (header.nlmsg_seq != sequence) continue;
    if (header.nlmsg_type == NLMSG_DONE) {
      scan.done = true;
    } else if (header.nlmsg_type == NLMSG_ERROR) {
      scan.failed = scan.done = true;
    } else if (header.nlmsg_type == RTM_NEWROUTE) {
      if (payloadLength < sizeof(rtmsg)) {
        scan.failed = scan.done = true;
        return;
      }
      rtmsg route;
      std::memcpy(&route, payload, sizeof route);
      // A way out to everything: a unicast route with an empty prefix.
      // Unreachable, blackhole and prohibit defaults lead nowhere.
      if ((route.rtm_family == AF_INET || route.rtm_family == AF_INET6) && route.rtm_dst_len == 0 &&
          route.rtm_type == RTN_UNICAST) {
        scan.defaultRoute = true;
      }
    }
  }
  if (!scan.done && offset < length && length - offset < sizeof(nlmsghdr)) {
    scan.failed = scan.done = true;
  }
}

std::unique_ptr<NetlinkRouteMonitor> NetlinkRouteMonitor::open() {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd < 0) return nullptr;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups =
      RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    close(fd);
    return nullptr;
  }
  return std::unique_ptr<NetlinkRouteMonitor>(new NetlinkRouteMonitor(fd));
}

NetlinkRouteMonitor::~NetlinkRouteMonitor() { close(fd_); }

bool NetlinkRouteMonitor::drainNotices() {
  bool any = false;
  char buffer[4096];
  for (;;) {
    const ssize_t n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
    if (n >= 0) {
      any = true;
    } else if (errno == ENOBUFS) {
      any = true;  // notices were dropped; the next read is complete again
    } else if (errno != EINTR) {
      return any;  // EAGAIN: nothing more queued
    }
  }
}

std::optional<bool> NetlinkRouteMonitor::defaultRouteExists() {
  static std::atomic<std::uint32_t> nextSequence{1};
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) return std::nullopt;
  // The kernel answers at once; the limit only guards against a socket that
  // never does.
  timeval limit{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  struct {
    nlmsghdr header;
    rtmsg route;
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = nextSequence.fetch_add(1);
  request.route.rtm_family = AF_UNSPEC;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  RouteScan scan;
  if (sendto(fd, &request, request.header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
             sizeof kernel) < 0) {
    scan.failed = true;
  }
  // Dump datagrams stay below 32 KiB; a larger one would come truncated and
  // fail the scan rather than be misread.
  std::vector<unsigned char> buffer(32768);
  while (!scan.failed && !scan.done) {
    sockaddr_nl from{};
    socklen_t fromLength = sizeof from;
    const ssize_t n = recvfrom(fd, buffer.data(), buffer.size(), 0,
                               reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || static_cast<std::size_t>(n) > buffer.size()) {
      scan.failed = true;
      break;
    }
    if (from.nl_pid != 0) continue;  // only the kernel answers a dump
    scanRouteDump(buffer.data(), static_cast<std::size_t>(n), request.header.nlmsg_seq, scan);
  }
  close(fd);
  if (scan.failed) return std::nullopt;
  return scan.defaultRoute;
}

}  // namespace qs

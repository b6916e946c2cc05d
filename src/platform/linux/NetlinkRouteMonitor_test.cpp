#include "NetlinkRouteMonitor.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

namespace qs {
namespace {

// A route dump datagram as the kernel writes it.
class Dump {
 public:
  Dump& route(std::uint32_t sequence, unsigned char family, unsigned char prefix,
              unsigned char type) {
    rtmsg route{};
    route.rtm_family = family;
    route.rtm_dst_len = prefix;
    route.rtm_type = type;
    route.rtm_table = RT_TABLE_MAIN;
    return message(RTM_NEWROUTE, sequence, &route, sizeof route);
  }
  Dump& message(std::uint16_t type, std::uint32_t sequence, const void* payload,
                std::size_t length) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(length));
    header.nlmsg_type = type;
    header.nlmsg_seq = sequence;
    const std::size_t at = bytes_.size();
    bytes_.resize(at + NLMSG_SPACE(length));
    std::memcpy(bytes_.data() + at, &header, sizeof header);
    if (length > 0) std::memcpy(bytes_.data() + at + NLMSG_HDRLEN, payload, length);
    return *this;
  }
  Dump& done(std::uint32_t sequence) {
    int status = 0;
    return message(NLMSG_DONE, sequence, &status, sizeof status);
  }
  std::vector<unsigned char>& bytes() { return bytes_; }

  RouteScan scan(std::uint32_t sequence) const {
    RouteScan scan;
    scanRouteDump(bytes_.data(), bytes_.size(), sequence, scan);
    return scan;
  }

 private:
  std::vector<unsigned char> bytes_;
};

TEST(NetlinkRouteMonitor, DumpScanFindsOnlyAUnicastWayOutAndRefusesDamage) {
  // A default route among others, over two datagrams.
  Dump first, second;
  first.route(7, AF_INET, 24, RTN_UNICAST).route(7, AF_INET6, 0, RTN_UNICAST);
  second.done(7);
  RouteScan scan;
  scanRouteDump(first.bytes().data(), first.bytes().size(), 7, scan);
  EXPECT_TRUE(scan.defaultRoute && !scan.done && !scan.failed);
  scanRouteDump(second.bytes().data(), second.bytes().size(), 7, scan);
  EXPECT_TRUE(scan.defaultRoute && scan.done && !scan.failed);

  // Defaults that lead nowhere, a narrower route, and a default answering
  // another request: no way out.
  auto none = Dump()
                  .route(7, AF_INET6, 0, RTN_UNREACHABLE)
                  .route(7, AF_INET, 0, RTN_BLACKHOLE)
                  .route(7, AF_INET, 8, RTN_UNICAST)
                  .route(8, AF_INET, 0, RTN_UNICAST)
                  .route(7, AF_BRIDGE, 0, RTN_UNICAST)
                  .done(7)
                  .scan(7);
  EXPECT_TRUE(!none.defaultRoute && none.done && !none.failed);

  // The kernel's error answer, and damaged datagrams, fail the read rather
  // than tell anything.
  int error = -1;
  auto refused = Dump().message(NLMSG_ERROR, 7, &error, sizeof error).scan(7);
  EXPECT_TRUE(refused.failed && refused.done);

  Dump overlong, shortRoute, trailing, zero;
  overlong.route(7, AF_INET, 0, RTN_UNICAST).bytes().resize(sizeof(nlmsghdr) + 4);
  const unsigned char fourBytes[4] = {AF_INET, 0, 0, 0};
  shortRoute.message(RTM_NEWROUTE, 7, fourBytes, sizeof fourBytes);
  trailing.route(7, AF_INET, 0, RTN_UNICAST).bytes().resize(trailing.bytes().size() + 6);
  for (Dump* damaged : {&overlong, &shortRoute, &trailing}) EXPECT_TRUE(damaged->scan(7).failed);
  zero.bytes().resize(sizeof(nlmsghdr));  // a header claiming zero bytes
  EXPECT_TRUE(zero.scan(0).failed);
}

}  // namespace
}  // namespace qs

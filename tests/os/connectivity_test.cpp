// The machine's connectivity from rtnetlink: how messages fold into the
// connectivity bits, and a read of this machine's tables.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "platform/os/connectivity.h"

using namespace tarn::os;

namespace {

// One rtnetlink message laid out as the kernel does, folded alone.
template <class Body>
std::uint32_t Fold(std::uint16_t type, const Body& body) {
  std::vector<char> bytes(NLMSG_SPACE(sizeof(Body)));
  nlmsghdr header{};
  header.nlmsg_len = NLMSG_LENGTH(sizeof(Body));
  header.nlmsg_type = type;
  std::memcpy(bytes.data(), &header, sizeof(header));
  std::memcpy(bytes.data() + NLMSG_HDRLEN, &body, sizeof(Body));
  return ConnectivityFromNetlink(bytes.data(), bytes.size(), 0);
}

TEST(ConnectivityFromNetlink, DefaultRoutesAndLinks) {
  struct RouteCase {
    std::uint8_t family, dstLen, type, table;
    unsigned flags;
    std::uint32_t expected;
  } routes[] = {
      {AF_INET, 0, RTN_UNICAST, RT_TABLE_MAIN, 0, 0x40},
      {AF_INET6, 0, RTN_UNICAST, RT_TABLE_MAIN, 0, 0x400},
      {AF_INET, 24, RTN_UNICAST, RT_TABLE_MAIN, 0, 0},           // a subnet, not the default
      {AF_INET6, 0, RTN_UNREACHABLE, RT_TABLE_MAIN, 0, 0},       // the kernel's placeholder
      {AF_INET, 0, RTN_UNICAST, RT_TABLE_LOCAL, 0, 0},
      {AF_INET, 0, RTN_UNICAST, RT_TABLE_MAIN, RTNH_F_LINKDOWN, 0},
  };
  for (const auto& c : routes) {
    rtmsg route{};
    route.rtm_family = c.family;
    route.rtm_dst_len = c.dstLen;
    route.rtm_type = c.type;
    route.rtm_table = c.table;
    route.rtm_flags = c.flags;
    EXPECT_EQ(Fold(RTM_NEWROUTE, route), c.expected) << int(c.family) << "/" << int(c.dstLen) << " type "
                                                     << int(c.type) << " table " << int(c.table);
  }
  struct LinkCase {
    unsigned flags;
    std::uint32_t expected;
  } links[] = {{IFF_UP | IFF_RUNNING, 0x20}, {IFF_UP, 0}, {IFF_UP | IFF_RUNNING | IFF_LOOPBACK, 0}};
  for (const auto& c : links) {
    ifinfomsg link{};
    link.ifi_flags = c.flags;
    EXPECT_EQ(Fold(RTM_NEWLINK, link), c.expected) << c.flags;
  }
}

TEST(RtnetlinkConnectivitySource, ReadsTheMachine) {
  RtnetlinkConnectivitySource source;
  const std::int32_t hr = source.Open();
  if (hr != 0) GTEST_SKIP() << "no rtnetlink here: " << hr;
  std::uint32_t connectivity = 0xFFFFFFFF;
  EXPECT_TRUE(source.Current(connectivity));
  EXPECT_EQ(connectivity & ~(kConnectivityInternet | kConnectivityIpv4LocalNetwork), 0u);
  // Drains without blocking, whatever is pending.
  source.TakeChanges();
  source.Close();
  EXPECT_EQ(InternetGetConnectedState(), (connectivity & kConnectivityInternet) != 0);
}

}  // namespace

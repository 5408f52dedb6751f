#include "platform/os/connectivity.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/os/last_error.h"

namespace tarn::os {

namespace {

int OpenRouteSocket(std::uint32_t groups, bool nonBlocking) {
  int type = SOCK_RAW | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0);
  int fd = ::socket(AF_NETLINK, type, NETLINK_ROUTE);
  if (fd < 0) return -1;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

// Sends one dump request and folds every answer into connectivity.
template <class Body>
bool Dump(int fd, std::uint16_t type, const Body& body, std::uint32_t sequence, std::uint32_t& connectivity) {
  struct {
    nlmsghdr header;
    Body body;
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(Body));
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = sequence;
  request.body = body;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(fd, &request, request.header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
               sizeof(kernel)) < 0) {
    return false;
  }
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    const auto length = static_cast<std::size_t>(n);
    connectivity = ConnectivityFromNetlink(buffer.data(), length, connectivity);
    // The dump ends with NLMSG_DONE; an error message ends it as a failure.
    int remaining = static_cast<int>(length);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(message, remaining);
         message = NLMSG_NEXT(message, remaining)) {
      if (message->nlmsg_seq != sequence) continue;
      if (message->nlmsg_type == NLMSG_DONE) return true;
      if (message->nlmsg_type == NLMSG_ERROR) return false;
    }
  }
}

}  // namespace

std::uint32_t ConnectivityFromNetlink(const void* data, std::size_t length, std::uint32_t connectivity) {
  int remaining = static_cast<int>(length);
  for (auto* message = static_cast<const nlmsghdr*>(data); NLMSG_OK(message, remaining);
       message = NLMSG_NEXT(message, remaining)) {
    if (message->nlmsg_type == RTM_NEWROUTE && message->nlmsg_len >= NLMSG_LENGTH(sizeof(rtmsg))) {
      const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(message));
      if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) continue;
      if (route->rtm_table == RT_TABLE_LOCAL) continue;
      if ((route->rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0) continue;
      if (route->rtm_family == AF_INET) connectivity |= kConnectivityIpv4Internet;
      if (route->rtm_family == AF_INET6) connectivity |= kConnectivityIpv6Internet;
    } else if (message->nlmsg_type == RTM_NEWLINK && message->nlmsg_len >= NLMSG_LENGTH(sizeof(ifinfomsg))) {
      const auto* link = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
      const unsigned flags = link->ifi_flags;
      if ((flags & IFF_LOOPBACK) != 0) continue;
      if ((flags & IFF_UP) != 0 && (flags & IFF_RUNNING) != 0) connectivity |= kConnectivityIpv4LocalNetwork;
    }
  }
  return connectivity;
}

RtnetlinkConnectivitySource::~RtnetlinkConnectivitySource() { Close(); }

std::int32_t RtnetlinkConnectivitySource::Open() {
  Close();
  fd_ = OpenRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE, true);
  if (fd_ < 0) return HresultFromErrno(errno);
  signal_ = FdHandle(fd_);
  return 0;
}

bool RtnetlinkConnectivitySource::Current(std::uint32_t& connectivity) {
  // A socket of its own, so that the answers don't mix with the notifications.
  int fd = OpenRouteSocket(0, false);
  if (fd < 0) return false;
  std::uint32_t value = kConnectivityDisconnected;
  rtmsg route{};
  route.rtm_family = AF_UNSPEC;
  ifinfomsg link{};
  link.ifi_family = AF_UNSPEC;
  const bool ok = Dump(fd, RTM_GETROUTE, route, 1, value) && Dump(fd, RTM_GETLINK, link, 2, value);
  ::close(fd);
  if (ok) connectivity = value;
  return ok;
}

bool RtnetlinkConnectivitySource::TakeChanges() {
  if (fd_ < 0) return false;
  bool changed = false;
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == ENOBUFS) {
      // Notifications were lost: count them as a change.
      changed = true;
      continue;
    }
    if (n <= 0) break;
    int remaining = static_cast<int>(n);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(message, remaining);
         message = NLMSG_NEXT(message, remaining)) {
      switch (message->nlmsg_type) {
        case RTM_NEWROUTE:
        case RTM_DELROUTE:
        case RTM_NEWLINK:
        case RTM_DELLINK:
          changed = true;
          break;
        default:
          break;
      }
    }
  }
  return changed;
}

void RtnetlinkConnectivitySource::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  signal_ = FdHandle(-1);
}

bool InternetGetConnectedState() {
  RtnetlinkConnectivitySource source;
  std::uint32_t connectivity = kConnectivityDisconnected;
  return source.Current(connectivity) && (connectivity & kConnectivityInternet) != 0;
}

}  // namespace tarn::os

#include "container/NetworkMonitor.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/log/tarn_log.h"
#include "platform/os/message_queue.h"
#include "thread/ThreadManager.h"

namespace tarn::container {

namespace {

// IsConnected's answers: a VARIANT_BOOL.
constexpr std::int16_t kVariantTrue = -1;
constexpr std::int16_t kVariantFalse = 0;

std::mutex g_mutex;
NetworkMonitorCallbacks g_callbacks;
ConnectivitySource* g_testSource = nullptr;

NetworkMonitorCallbacks Callbacks() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_callbacks;
}

void NotifyKits(std::int32_t status) {
  auto callbacks = Callbacks();
  if (callbacks.notifyNetworkChangeToKit) callbacks.notifyNetworkChangeToKit(status);
}

// An errno in the shape of HRESULT_FROM_WIN32, as the monitor's log lines show results.
std::int32_t ErrnoResult(int error) {
  return static_cast<std::int32_t>(0x80070000u | (static_cast<std::uint32_t>(error) & 0xFFFFu));
}

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
  if (fd_ < 0) return ErrnoResult(errno);
  signal_ = tarn::os::FdHandle(fd_);
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
  signal_ = tarn::os::FdHandle(-1);
}

void SetNetworkMonitorCallbacks(NetworkMonitorCallbacks callbacks) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_callbacks = std::move(callbacks);
}

void SetConnectivitySourceForTesting(ConnectivitySource* source) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_testSource = source;
}

}  // namespace tarn::container

std::int32_t NetworkManager::ConnectivityChanged(std::uint32_t newConnectivity) {
  using namespace tarn::container;
  if (newConnectivity == kConnectivityDisconnected) {
    CLOGI("NetworkManager::ConnectivityChanged", "Network disconnect, newConnectivity = " << newConnectivity);
    NotifyKits(-1);
  } else if ((newConnectivity & kConnectivityInternet) != 0) {
    CLOGI("NetworkManager::ConnectivityChanged", "Network connect, newConnectivity = " << newConnectivity);
    NotifyKits(0);
    auto callbacks = Callbacks();
    if (callbacks.networkConnectForUpdate) callbacks.networkConnectForUpdate();
  } else {
    // A local network without the internet counts as not connected.
    CLOGI("NetworkManager::ConnectivityChanged", "Network disconnect, newConnectivity = " << newConnectivity);
    NotifyKits(-1);
  }
  return 0;
}

int InitNetworkMonitor() {
  using namespace tarn::container;
  std::unique_ptr<ConnectivitySource> own;
  ConnectivitySource* source = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    source = g_testSource;
  }
  if (!source) {
    own = std::make_unique<RtnetlinkConnectivitySource>();
    source = own.get();
  }

  const std::int32_t hr = source->Open();
  if (hr != 0) {
    CLOGI("InitNetworkMonitor", "CLSID_NetworkListManager: " << hr);
    return 0;
  }

  std::uint32_t connectivity = kConnectivityDisconnected;
  const bool failed = !source->Current(connectivity);
  const std::int16_t isConnected =
      !failed && (connectivity & kConnectivityInternet) != 0 ? kVariantTrue : kVariantFalse;
  if (isConnected == kVariantFalse) {
    NotifyKits(-1);
  } else if (isConnected == kVariantTrue) {
    NotifyKits(0);
  }
  CLOGI("InitNetworkMonitor", "is Connected: " << isConnected << ", " << failed);

  auto manager = std::make_shared<NetworkManager>();
  // The value last passed on: the kernel reports many route changes that leave
  // the connectivity as it was, and those are not changes of the network.
  std::uint32_t last = connectivity;
  const std::shared_ptr<tarn::os::Event> exitEvent = VantrelThread::ThreadManager::Instance().processExitEvent;
  const std::vector<tarn::os::Waitable*> handles = {exitEvent.get(), source->ChangeSignal()};
  const auto messageIndex = static_cast<std::uint32_t>(handles.size());

  for (;;) {
    const std::uint32_t result = tarn::os::MsgWaitForMultipleObjects(handles, tarn::os::kInfinite);
    if (result == tarn::os::kWaitObject0) break;
    if (result == tarn::os::kWaitObject0 + 1) {
      std::uint32_t now = 0;
      if (source->TakeChanges() && source->Current(now) && now != last) {
        last = now;
        manager->ConnectivityChanged(now);
      }
      continue;
    }
    if (result == tarn::os::kWaitObject0 + messageIndex) {
      tarn::os::Msg msg;
      // The quit message comes back as 0 and doesn't end the loop: the exit event does.
      if (tarn::os::GetMessage(&msg) == 0) continue;
      tarn::os::DispatchMessage(msg);
      if (msg.message == tarn::os::kWmQuit) break;
      continue;
    }
    // Other results go round again.
  }

  source->Close();
  manager.reset();
  return 0;
}

#pragma once
// The network monitor: an initial connectivity answer to the kits, then every
// change of connectivity to the kits and to the update logic. On Linux the
// connectivity comes from rtnetlink: a default route is the internet, a link
// that is up without one is a local network only.
//
// The container's fan-out (NotifyNetworkChangeToKit, NetworkConnectForUpdate)
// builds on this library's users, so it comes in as callbacks that the
// process installs before InitNetworkMonitor.
#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/os/event.h"

namespace tarn::container {

// Connectivity bits, as the system's network list reports them.
inline constexpr std::uint32_t kConnectivityDisconnected = 0;
inline constexpr std::uint32_t kConnectivityIpv4LocalNetwork = 0x20;
inline constexpr std::uint32_t kConnectivityIpv4Internet = 0x40;
inline constexpr std::uint32_t kConnectivityIpv6Internet = 0x400;
inline constexpr std::uint32_t kConnectivityInternet = kConnectivityIpv4Internet | kConnectivityIpv6Internet;

struct NetworkMonitorCallbacks {
  // NotifyNetworkChangeToKit: 0 connected, -1 not connected.
  std::function<bool(std::int32_t status)> notifyNetworkChangeToKit;
  // NetworkConnectForUpdate: the network has come up.
  std::function<void()> networkConnectForUpdate;
};

// Installed by the process before InitNetworkMonitor; an empty member calls nothing.
void SetNetworkMonitorCallbacks(NetworkMonitorCallbacks callbacks);

// Where connectivity comes from: an initial answer and a signal of changes.
class ConnectivitySource {
 public:
  virtual ~ConnectivitySource() = default;
  // 0 when the source is ready, otherwise an error code (the monitor then ends).
  virtual std::int32_t Open() = 0;
  // The connectivity now, in the bits above. False when it can't be read.
  virtual bool Current(std::uint32_t& connectivity) = 0;
  // Turns ready when routes or links may have changed. Valid after Open.
  virtual tarn::os::Waitable* ChangeSignal() = 0;
  // Takes what made the signal ready; true when routes or links changed.
  virtual bool TakeChanges() = 0;
  virtual void Close() = 0;
};

// The kernel's routing tables and links through NETLINK_ROUTE.
class RtnetlinkConnectivitySource : public ConnectivitySource {
 public:
  RtnetlinkConnectivitySource() = default;
  ~RtnetlinkConnectivitySource() override;
  RtnetlinkConnectivitySource(const RtnetlinkConnectivitySource&) = delete;
  RtnetlinkConnectivitySource& operator=(const RtnetlinkConnectivitySource&) = delete;

  // Joins the link and route groups; the error is an HRESULT made of the errno.
  std::int32_t Open() override;
  // Dumps the routes and links.
  bool Current(std::uint32_t& connectivity) override;
  tarn::os::Waitable* ChangeSignal() override { return &signal_; }
  bool TakeChanges() override;
  void Close() override;

 private:
  int fd_ = -1;
  tarn::os::FdHandle signal_{-1};
};

// Folds a buffer of rtnetlink messages into connectivity bits: a unicast
// default route that is not dead or down is the internet of its family; a link
// that is up and running, other than the loopback, is a local network.
std::uint32_t ConnectivityFromNetlink(const void* data, std::size_t length, std::uint32_t connectivity);

// The source InitNetworkMonitor uses; nullptr restores rtnetlink. Not owned.
void SetConnectivitySourceForTesting(ConnectivitySource* source);

}  // namespace tarn::container

// Receives the changes of connectivity on the monitor's thread.
class NetworkManager {
 public:
  // Always 0. Tells the kits 0 when an internet bit is set, and then the update
  // logic; anything else, a local network included, is -1 to the kits.
  std::int32_t ConnectivityChanged(std::uint32_t newConnectivity);
};

// Tells the kits the connectivity now, then dispatches changes and the
// thread's messages until the process-exit event of ThreadManager. Always 0.
int InitNetworkMonitor();

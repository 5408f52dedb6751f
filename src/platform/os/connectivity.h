#pragma once
// The machine's connectivity, read from the kernel's routing tables and links
// through rtnetlink: a default route is the internet of its family, a link that
// is up without one is a local network only. The network monitor follows its
// changes; the silent upgrade asks it once before each check.
#include <cstddef>
#include <cstdint>

#include "platform/os/event.h"

namespace tarn::os {

// Connectivity bits, as the system's network list reports them.
inline constexpr std::uint32_t kConnectivityDisconnected = 0;
inline constexpr std::uint32_t kConnectivityIpv4LocalNetwork = 0x20;
inline constexpr std::uint32_t kConnectivityIpv4Internet = 0x40;
inline constexpr std::uint32_t kConnectivityIpv6Internet = 0x400;
inline constexpr std::uint32_t kConnectivityInternet = kConnectivityIpv4Internet | kConnectivityIpv6Internet;

// Where connectivity comes from: an answer now and a signal of changes.
class ConnectivitySource {
 public:
  virtual ~ConnectivitySource() = default;
  // 0 when the change signal is ready, otherwise an error code.
  virtual std::int32_t Open() = 0;
  // The connectivity now, in the bits above. False when it can't be read.
  // Needs no Open.
  virtual bool Current(std::uint32_t& connectivity) = 0;
  // Turns ready when routes or links may have changed. Valid after Open.
  virtual Waitable* ChangeSignal() = 0;
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
  Waitable* ChangeSignal() override { return &signal_; }
  bool TakeChanges() override;
  void Close() override;

 private:
  int fd_ = -1;
  FdHandle signal_{-1};
};

// Folds a buffer of rtnetlink messages into connectivity bits: a unicast
// default route that is not dead or down is the internet of its family; a link
// that is up and running, other than the loopback, is a local network.
std::uint32_t ConnectivityFromNetlink(const void* data, std::size_t length, std::uint32_t connectivity);

// Connected to the internet: a default route (IPv4 or IPv6) exists now.
bool InternetGetConnectedState();

}  // namespace tarn::os

#pragma once
// The network monitor: an initial connectivity answer to the kits, then every
// change of connectivity to the kits and to the update logic. The connectivity
// comes from the platform's rtnetlink source (platform/os/connectivity.h).
//
// The container's fan-out (NotifyNetworkChangeToKit, NetworkConnectForUpdate)
// builds on this library's users, so it comes in as callbacks that the
// process installs before InitNetworkMonitor.
#include <cstdint>
#include <functional>

#include "platform/os/connectivity.h"

namespace tarn::container {

struct NetworkMonitorCallbacks {
  // NotifyNetworkChangeToKit: 0 connected, -1 not connected.
  std::function<bool(std::int32_t status)> notifyNetworkChangeToKit;
  // NetworkConnectForUpdate: the network has come up.
  std::function<void()> networkConnectForUpdate;
};

// Installed by the process before InitNetworkMonitor; an empty member calls nothing.
void SetNetworkMonitorCallbacks(NetworkMonitorCallbacks callbacks);

// The source InitNetworkMonitor uses; nullptr restores rtnetlink. Not owned.
void SetConnectivitySourceForTesting(tarn::os::ConnectivitySource* source);

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

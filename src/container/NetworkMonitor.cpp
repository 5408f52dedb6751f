#include "container/NetworkMonitor.h"

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
tarn::os::ConnectivitySource* g_testSource = nullptr;

NetworkMonitorCallbacks Callbacks() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_callbacks;
}

void NotifyKits(std::int32_t status) {
  auto callbacks = Callbacks();
  if (callbacks.notifyNetworkChangeToKit) callbacks.notifyNetworkChangeToKit(status);
}

}  // namespace

void SetNetworkMonitorCallbacks(NetworkMonitorCallbacks callbacks) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_callbacks = std::move(callbacks);
}

void SetConnectivitySourceForTesting(tarn::os::ConnectivitySource* source) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_testSource = source;
}

}  // namespace tarn::container

std::int32_t NetworkManager::ConnectivityChanged(std::uint32_t newConnectivity) {
  using namespace tarn::container;
  using namespace tarn::os;
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
  using namespace tarn::os;
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

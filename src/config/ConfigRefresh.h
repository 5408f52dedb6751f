#pragma once
// What the refresh worker needs beyond the configuration: the kit loader and
// the scope proxy (which themselves build on the configuration, so they are
// handed in by the process rather than linked), and the worker's wait, which
// tests replace to step through cycles without waiting a minute.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/os/event.h"

namespace tarn::config {

struct RefreshKitHooks {
  // LoadManger::HasKit: the package's kits are loaded.
  std::function<bool(const std::string& packageName)> hasKit;
  // LoadManger::LoadKitDll.
  std::function<bool(const std::string& packageName)> loadKitDll;
  // ScopeProxy::HasService.
  std::function<bool()> hasScopeService;
  // ScopeProxy::CreateWasmScopeService.
  std::function<bool()> createWasmScopeService;
};

// Installed once by the process before ConfigManager::Init. Without hooks (or
// with an empty member) the refresh loads no kit and makes no scope service.
void SetRefreshKitHooks(RefreshKitHooks hooks);
RefreshKitHooks GetRefreshKitHooks();

// The worker's wait on {process exit, configEvent}: tarn::os::WaitForAny unless
// a test installs its own (an empty function restores it).
using RefreshWait =
    std::function<std::uint32_t(const std::vector<tarn::os::Waitable*>& handles, std::uint32_t timeoutMs)>;
void SetRefreshWaitForTesting(RefreshWait wait);

// Address and path of the cloud's copy of remoteConfig.json.
inline constexpr const char* kConfigServerName = "com.vantrel.configserver";
inline constexpr const char* kConfigServerKey = "ROOT";
inline constexpr const char* kConfigServerPath =
    "/servicesupport/updateserver/data/com.vantrel.tarncore_framework_kitconfig?DT=20";

// Results of ConfigManager::DownloadConfigFile.
inline constexpr int kDownloadSaved = 0;
inline constexpr int kDownloadSame = 1;
inline constexpr int kDownloadFailed = 2;

}  // namespace tarn::config

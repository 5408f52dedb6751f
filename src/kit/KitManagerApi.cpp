#include "kit/KitManagerApi.h"

#include "access/api_gates.h"
#include "config/ConfigManager.h"
#include "config/VersionAtLeast.h"
#include "kit/KitRuntimeHooks.h"
#include "kit/LoadManger.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"

std::mutex kitInitMutex;

namespace {

// Callers with at least this SDK get the newer code of a pair.
constexpr const char* kNewSdkVersion = "5.3.0.300";

const tarn::access::KitApiGates::LevelChecks& LevelChecks() {
  static const tarn::access::KitApiGates::LevelChecks checks{
      [](RequestHeader& header, ResponseStatus& status) {
        return ConfigManager::GetInstance().CheckApiLevel(header, status);
      },
      [] { return tarn::kit::GetKitRuntimeHooks().IsUpdating(); },
      [] { return tarn::kit::GetKitRuntimeHooks().HasNewVersion(); },
      [](const std::string& a, const std::string& b) { return VersionAtLeast(a, b); },
  };
  return checks;
}

}  // namespace

KitManagerApi& KitManagerApi::GetInstance() {
  static auto* instance = new KitManagerApi;  // request threads may outlive static teardown
  return *instance;
}

void KitManagerApi::ResetForTesting() { isInitComplete = false; }

bool KitManagerApi::Init() {
  CLOGI("KitManagerApi::Init", "KitManagerApi.Init begin.");
  bool ret = true;
  if (!isInitComplete) {
    std::unique_lock lock(kitInitMutex);
    try {
      tarn::kit::GetKitRuntimeHooks().RegisterFrameworkHandlers();
      ret = InitKit();
    } catch (...) {
      // The container takes requests all the same; kits then load on demand.
      CLOGE("KitManagerApi::Init", "KitManagerApi.Init faield.");
    }
    lock.unlock();
    isInitComplete = true;
  }
  CLOGI("KitManagerApi::Init", "KitManagerApi.Init end. ret = " << ret);
  return ret;
}

bool KitManagerApi::InitKit() {
  if (!InitKitConfig()) {
    CLOGE("KitManagerApi::InitKit", "KitManagerApi.InitKit, InitKitConfig failed.");
    return false;
  }
  if (!InitKitLoad()) {
    CLOGE("KitManagerApi::InitKit", "KitManagerApi.InitKit, InitKitLoad failed.");
    return false;
  }
  return true;
}

bool KitManagerApi::InitKitConfig() {
  if (ConfigManager::GetInstance().Init()) return true;
  CLOGE("KitManagerApi::InitKitConfig", "KitManagerApi.InitKitConfig, get config failed.");
  return false;
}

bool KitManagerApi::InitKitLoad() {
  if (LoadManger::GetInstance().LoadAllKit()) return true;
  CLOGE("KitManagerApi::InitKitLoad", "KitManagerApi.InitKitLoad, load kit failed.");
  return false;
}

bool KitManagerApi::InitKitsForUpdate() {
  CLOGI("KitManagerApi::InitKitsForUpdate", "KitManagerApi.InitKitsForUpdate begin.");
  {
    std::lock_guard lock(kitInitMutex);
    try {
      InitKit();
    } catch (...) {
      CLOGE("KitManagerApi::InitKitsForUpdate", "KitManagerApi.InitKitsForUpdate failed.");
    }
  }
  CLOGI("KitManagerApi::InitKitsForUpdate", "KitManagerApi.InitKitsForUpdate end.");
  return true;
}

bool KitManagerApi::Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* item,
                           ResponseStatus& status) {
  try {
    const std::string msgIdentify = item ? item->msgIdentify : std::string();
    CLOGI("KitManagerApi::Invoke", "KitManagerApi.Invoke start. msgIdentify = " << msgIdentify);
    KitApiDetailInfo api;
    ConfigManager::GetInstance().GetAPIInfo(request.api_name, api, status);
    if (api.apiName.empty()) {
      CLOGE("KitManagerApi::Invoke",
            "uri not supported. msgIdentify = " << msgIdentify << " uri = " << request.api_name);
      SetResponseStatus(status, TarnStatus::kApiNotSupported);
      return false;
    }
    if (api.invokeType == "FRAMEWORK") {
      // The handler has answered, or written the status, itself.
      tarn::kit::GetKitRuntimeHooks().FrameworkInvoke(api.uri, item, request, status);
    } else if (api.invokeType == "DLL") {
      if (!InvokeToKit(api, header, request, item, status)) return false;
    }
  } catch (...) {
    // Logged and not answered: the status still says success, and the
    // client runs into its own time-out.
    CLOGE("KitManagerApi::Invoke", "KitManagerApi.Invoke failed.");
  }
  CLOGI("KitManagerApi::Invoke", "KitManagerApi.Invoke end.");
  return true;
}

bool KitManagerApi::InvokeToKit(KitApiDetailInfo& api, RequestHeader& header, ConvertedRequest& request,
                                ServerResCallBack* item, ResponseStatus& status) {
  // The item may be answered and gone once the kit's function has run.
  const std::string msgIdentify = item ? item->msgIdentify : std::string();
  ConfigManager& config = ConfigManager::GetInstance();
  LoadManger& loader = LoadManger::GetInstance();

  std::string forceUpdate;
  config.GetForceUpdateFlag(api.kitName, forceUpdate);
  if (forceUpdate == "1") {
    CLOGI("KitManagerApi::InvokeToKit",
          "The kit = " << api.kitName << " forceupdate = " << forceUpdate);
    if (tarn::kit::GetKitRuntimeHooks().IsUpdating()) {
      SetResponseStatus(status, VersionAtLeast(header.sdk_version, kNewSdkVersion)
                                    ? TarnStatus::kUpdating2
                                    : TarnStatus::kUpdating);
      CLOGE("KitManagerApi::InvokeToKit",
            "tarn is updating in forceUpdate, sdk_version = " << header.sdk_version);
    } else {
      SetResponseStatus(status, TarnStatus::kNeedForceUpdate);
    }
    return false;
  }

  // Loaded before the caller's level and permission are looked at.
  if (!loader.HasKit(api.packageName)) {
    CLOGI("KitManagerApi::InvokeToKit",
          "load kit. msgIdentify = " << msgIdentify << " packageName = " << api.packageName);
    loader.LoadKit(api.packageName, api.fileName, api.type, api.entry, api.kitManifVerify);
    // The table, not the load's result, says whether the kit is there.
    if (!loader.HasKit(api.packageName)) {
      CLOGE("KitManagerApi::InvokeToKit",
            "Load kit failed " << api.packageName << " msgIdentify = " << msgIdentify);
      SetResponseStatus(status, TarnStatus::kLoadKitFailed);
      return false;
    }
  }

  CLOGI("KitManagerApi::InvokeToKit", "KitManagerApi.CheckApiLevel begin.");
  if (!CheckApiLevel(header, status)) {
    CLOGE("KitManagerApi::InvokeToKit", "CheckApiLevel failed. msgIdentify = " << msgIdentify);
    return false;
  }
  CLOGI("KitManagerApi::InvokeToKit", "KitManagerApi.CheckApiLevel end.");

  CLOGI("KitManagerApi::InvokeToKit", "KitManagerApi.CheckApiPermission begin.");
  if (config.verifyEnabled && !CheckApiPermission(item, request, header, status)) {
    CLOGE("KitManagerApi::InvokeToKit", "CheckApiPermission failed. msgIdentify = " << msgIdentify);
    return false;
  }
  CLOGI("KitManagerApi::InvokeToKit", "KitManagerApi.CheckApiPermission end.");

  if (loader.Invoke(api, item, request, status)) return true;
  CLOGE("KitManagerApi::InvokeToKit", "Do InvokeToKit failed. msgIdentify  = " << msgIdentify);
  return false;
}

bool KitManagerApi::NotifyWinEventToKit(ConvertedRequest& request, ResponseStatus& status) {
  try {
    CLOGI("KitManagerApi::NotifyWinEventToKit", "KitManagerApi.NotifyWinEventToKit start. ");
    KitApiDetailInfo api;
    ConfigManager::GetInstance().GetAPIInfo(request.api_name, api, status);
    if (api.apiName.empty()) {
      CLOGE("KitManagerApi::NotifyWinEventToKit", "uri is not supported.");
      CLOGE("KitManagerApi::NotifyWinEventToKit", request.api_name);
      SetResponseStatus(status, TarnStatus::kApiNotSupported);
      return false;
    }
    // No force update gate and no load on demand: an event for a kit that
    // isn't loaded fails in the loader.
    LoadManger::GetInstance().NotifyWinEventToKit(api, request, status);
  } catch (...) {
    CLOGE("KitManagerApi::NotifyWinEventToKit", "KitManagerApi.NotifyWinEventToKit failed.");
  }
  CLOGI("KitManagerApi::NotifyWinEventToKit", "KitManagerApi.NotifyWinEventToKit end.");
  return true;
}

bool KitManagerApi::CheckApiLevel(RequestHeader& header, ResponseStatus& status) {
  return tarn::access::KitApiGates::CheckApiLevel(header, status, LevelChecks());
}

bool KitManagerApi::CheckApiPermission(ServerResCallBack* item, ConvertedRequest& request,
                                       RequestHeader& header, ResponseStatus& status) {
  const bool isTarnCoreRequest = item && item->isTarnCoreRequest;
  auto lookup = [&request]() {
    ResponseStatus ignored;
    auto api = ConfigManager::GetInstance().FindAPIInfo(request.api_name, ignored);
    if (!api) return tarn::access::KitApiGates::ApiPermissionInfo{};
    return tarn::access::KitApiGates::ApiPermissionInfo{api->apiName, api->permission, api->scopeUri};
  };
  return tarn::access::KitApiGates::CheckApiPermission(isTarnCoreRequest, request.api_name, header,
                                                       lookup, status);
}

bool KitManagerApi::IsTarnCorerequest(std::uint32_t processId, RequestHeader& header) {
  return tarn::access::KitApiGates::IsTarnCorerequest(processId, header);
}

bool KitManagerApi::CheckIsInstallationPath(std::string path) {
  return tarn::access::KitApiGates::CheckIsInstallationPath(std::move(path));
}

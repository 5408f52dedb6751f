// The dispatch map from request uri to kit api, and the gates' questions to it.
#include <cctype>

#include "config/ConfigManager.h"
#include "config/ConfigText.h"
#include "config/VersionAtLeast.h"
#include "platform/log/tarn_log.h"

namespace {

void ToLowerInPlace(std::string& text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

// Whether `key`, lower-cased the way ToLowerInPlace does it, equals `lowered`.
bool EqualsLowered(const std::string& key, const std::string& lowered) {
  if (key.size() != lowered.size()) return false;
  for (std::size_t i = 0; i < key.size(); ++i) {
    if (static_cast<char>(std::tolower(static_cast<unsigned char>(key[i]))) != lowered[i]) return false;
  }
  return true;
}

// "0", "12", "007" pass; "-1", "1.5", " 1", "-" and "" fail.
bool IsNonNegativeIntegerText(const std::string& text) {
  if (text.empty()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (i == 0 && c == '-' && text.size() >= 2) continue;
    if (c < '0' || c > '9') return false;
  }
  return tarn::config::Atoi32(text) >= 0;
}

void SetLevelTooLowStatus(const RequestHeader& header, ResponseStatus& status) {
  // A newer SDK tells its user more about the update it needs.
  SetResponseStatus(status, VersionAtLeast(header.sdk_version, tarn::config::kNewSdkVersion)
                                ? TarnStatus::kApiLevelLow2
                                : TarnStatus::kApiLevelLow);
}

}  // namespace

bool ConfigManager::ConstuctApiDispathMap() {
  if (kitConfigMap.empty()) return false;
  // Never cleared: a uri that a newer configuration drops keeps its old record.
  for (const auto& [packageName, kitConfig] : kitConfigMap) {
    if (!kitConfig || !kitConfig->subKits) continue;
    for (const auto& subKit : *kitConfig->subKits) {
      if (!subKit || !subKit->apis) continue;
      for (const auto& api : *subKit->apis) {
        auto detail = std::make_shared<KitApiDetailInfo>();
        detail->uri = api->uri;
        detail->apiName = api->apiName;
        detail->permission = api->permission;
        detail->verifyCaller = api->verifyCaller;
        detail->packageName = subKit->packageName;
        detail->version = subKit->version;
        detail->fileName = subKit->fileName;
        detail->kitName = subKit->kitName;
        detail->apiLevel = subKit->apiLevel;
        detail->type = subKit->type;
        detail->entry = subKit->entry;
        detail->startup = subKit->startup;
        detail->invokeType = "DLL";
        detail->kitManifVerify = subKit->kitManifVerify;
        detail->minApiLevels = subKit->minApiLevels;
        detail->scopeUri = api->scopeUri;
        kitApiDispathMap[api->uri] = detail;  // of two equal uris the last read wins
      }
    }
  }
  return true;
}

bool ConfigManager::GetAPIInfo(std::string& uri, KitApiDetailInfo& info, ResponseStatus& status) {
  if (kitApiDispathMap.empty()) {
    CLOGE("ConfigManager::GetAPIInfo", "kitApiDispathMap is empty.");
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    return false;
  }
  bool matched = false;
  std::shared_ptr<KitApiDetailInfo> held = ScanApiDispathMap(uri, matched);
  if (matched) {
    if (held) info = *held;
    CLOGD("ConfigManager::GetAPIInfo", "kitAPiInfo message kitName." << info.kitName);
  }
  return true;
}

std::shared_ptr<const KitApiDetailInfo> ConfigManager::FindAPIInfo(std::string& uri,
                                                                   ResponseStatus& status) {
  if (kitApiDispathMap.empty()) {
    CLOGE("ConfigManager::GetAPIInfo", "kitApiDispathMap is empty.");
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    return nullptr;
  }
  bool matched = false;
  std::shared_ptr<KitApiDetailInfo> held = ScanApiDispathMap(uri, matched);
  if (matched) {
    CLOGD("ConfigManager::GetAPIInfo",
          "kitAPiInfo message kitName." << (held ? held->kitName : std::string()));
  }
  return held;
}

std::shared_ptr<KitApiDetailInfo> ConfigManager::ScanApiDispathMap(std::string& uri, bool& matched) {
  matched = false;
  // The caller's own uri is lower-cased on purpose: everything after the gate sees it so.
  ToLowerInPlace(uri);
  // Keys keep their manifest case, so this is a scan and not a lookup. The
  // lower-cased copy of each key is made only when the debug line shows it.
  const bool showKeys = tarn::log::Enabled(tarn::log::Level::Debug);
  std::string uriTemp;
  for (const auto& [key, record] : kitApiDispathMap) {
    bool equal;
    if (showKeys) {
      uriTemp = key;
      ToLowerInPlace(uriTemp);
      CLOGD("ConfigManager::GetAPIInfo", "kitApiDispathMap uriTemp." << uriTemp);
      equal = uriTemp == uri;
    } else {
      equal = EqualsLowered(key, uri);
    }
    if (equal) {
      CLOGD("ConfigManager::GetAPIInfo", "uri equal uriTemp.");
      matched = true;
      return record;
    }
  }
  return nullptr;
}

void ConfigManager::GetKitApiLevel(const std::string& kitName, std::string& apiLevel) {
  for (const auto& [packageName, kitConfig] : kitConfigMap) {
    if (!kitConfig || !kitConfig->subKits) continue;
    for (const auto& subKit : *kitConfig->subKits) {
      if (subKit && subKit->kitName == kitName) {
        apiLevel = subKit->apiLevel;
        return;
      }
    }
  }
}

bool ConfigManager::CheckApiLevel(RequestHeader& header, ResponseStatus& status) {
  if (!header.apiLevel.empty() && !IsNonNegativeIntegerText(header.apiLevel)) {
    CLOGE("ConfigManager::CheckApiLevel", "api level is invalid!");
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    return false;
  }
  // The built-in kit is not level-checked.
  if (header.srv_name == "FRAMEWORK") return true;

  // A kit's level is the highest it serves: a caller above it waits for an update.
  std::string kitLevel;
  GetKitApiLevel(header.srv_name, kitLevel);
  if (kitLevel.empty()) {
    CLOGE("ConfigManager::CheckApiLevel", "the kit is not exist. uri = " << header.api_name);
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    return false;
  }
  const std::int32_t callerLevel = tarn::config::Atoi32(header.apiLevel);
  if (callerLevel > tarn::config::Atoi32(kitLevel)) {
    CLOGE("ConfigManager::CheckApiLevel", "APILevel is low, need update.. uri = " << header.api_name);
    SetLevelTooLowStatus(header, status);
    return false;
  }

  // What GetAPIInfo would copy into a fresh record, read in place.
  std::shared_ptr<const KitApiDetailInfo> info = FindAPIInfo(header.api_name, status);
  if (!info || info->apiLevel.empty()) {
    CLOGE("ConfigManager::CheckApiLevel", "uri is not supported. uri = " << header.api_name);
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    return false;
  }
  if (callerLevel <= tarn::config::Atoi32(info->apiLevel)) return true;
  CLOGE("ConfigManager::CheckApiLevel", "APILevel is low, need update. uri = " << header.api_name);
  SetLevelTooLowStatus(header, status);
  return false;
}

void ConfigManager::GetAllSubKitConfig(SubKitConfigList& subKitList) {
  for (const auto& [packageName, kitConfig] : kitConfigMap) {
    if (!kitConfig || !kitConfig->subKits) continue;
    for (const auto& subKit : *kitConfig->subKits) subKitList.push_back(subKit);
  }
}

void ConfigManager::GetForceUpdateFlag(const std::string& kitName, std::string& forceUpdate) {
  forceUpdate = "0";
  // The remote list and not the manifests: a kit answers to the package that names it.
  std::shared_ptr<PackageInfoList> packages = remoteConfig.packageInfoList;
  if (packages) {
    for (const auto& package : *packages) {
      if (!package || !package->subKits) continue;
      for (const auto& subKit : *package->subKits) {
        if (subKit && subKit->kitName == kitName) {
          forceUpdate = package->forceUpdate;
          return;
        }
      }
    }
  }
  CLOGI("ConfigManager::GetForceUpdateFlag",
        "Not exist kit = " << kitName << " forceUpdate = " << forceUpdate);
}

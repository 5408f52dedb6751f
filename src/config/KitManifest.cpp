// Reading a package's kitManifest.json into the kit tree.
#include <json/json.h>
#include <sys/stat.h>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "config/ConfigText.h"
#include "platform/commonutil/de.h"
#include "platform/log/tarn_log.h"

using tarn::config::ValueText;

bool ConfigManager::ReadKitConfigForPackage(std::string packageName,
                                            const std::shared_ptr<SubKitConfigList>& remoteSubKits) {
  CLOGI("ConfigManager::ReadKitConfigForPackage",
        "ConfigManager.ReadKitConfigForPackage begin. packageName = " << packageName);
  const std::string path = tarn::config::InstallDirectory() + tarn::config::kKitsDir + packageName +
                           tarn::config::kKitManifestFile;
  // A fresh entry replaces any earlier one, so a manifest that can't be read
  // leaves the package with no kits rather than with stale ones.
  auto kitConfig = std::make_shared<KitConfig>();
  kitConfig->subKits = std::make_shared<SubKitConfigList>();
  kitConfigMap[packageName] = kitConfig;
  ReadKitConfigForFile(packageName, path, *kitConfig->subKits);
  FilterSubKitConfig(*kitConfig->subKits, remoteSubKits);
  CLOGI("ConfigManager::ReadKitConfigForPackage", "ConfigManager.ReadKitConfigForPackage end.");
  return true;
}

bool ConfigManager::ReadKitServiceForPackage(std::string packageName) {
  CLOGI("ConfigManager::ReadKitServiceForPackage",
        "ConfigManager.ReadKitServiceForPackage begin. packageName = " << packageName);
  const std::string path = tarn::config::InstallDirectory() + tarn::config::kKitsDir + packageName +
                           tarn::config::kServiceInfoFile;
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
    tarn::config::ServiceInfoRegistrar* registrar = tarn::config::GetServiceInfoRegistrar();
    return registrar != nullptr && registrar->RegisterServiceInfo(path);
  }
  CLOGI("ConfigManager::ReadKitServiceForPackage", packageName << " ServiceInfo.json not found");
  return false;
}

bool ConfigManager::ReadKitConfigForFile(const std::string& packageName,
                                         const std::string& configFilePath,
                                         SubKitConfigList& outSubKits) {
  CLOGI("ConfigManager::ReadKitConfigForFile",
        "ConfigManager.ReadKitConfigForFile begin. configFilePath = " << configFilePath);
  // A manifest without a digest is still read; the kit then fails its integrity check.
  const std::string digest = DE::GetFileSha256Hex(configFilePath);
  if (digest.empty()) {
    CLOGE("ConfigManager::ReadKitConfigForFile", "Get kitManifest.json File Sha256 code failed.");
  }
  Json::Value root;
  bool opened = false;
  int error = 0;
  bool parsed = tarn::config::ParseConfigFile(configFilePath, root, opened, error);
  if (!opened) {
    CLOGE("ConfigManager::ReadKitConfigForFile",
          "Open kit config failed or packageName failed,.configFilePath = " << configFilePath
                                                                             << "error: " << error);
    return false;
  }
  if (!parsed) {
    CLOGE("ConfigManager::ReadKitConfigForFile",
          "init config,data parse error. configFilePath = " << configFilePath);
    return false;
  }
  const std::string version = ValueText(root["version"]);
  const std::string fileName = ValueText(root["fileName"]);
  const Json::Value& kits = root["kits"];
  for (Json::ArrayIndex i = 0; i < kits.size(); ++i) {
    const Json::Value& element = kits[i];
    const std::string kitName = ValueText(element["kitName"]);
    auto subKit = std::make_shared<SubKitConfig>();
    subKit->packageName = packageName;
    subKit->version = version;
    subKit->fileName = fileName;
    subKit->kitManifVerify = digest;
    ReadSubKitConfig(*subKit, kitName, element);
    outSubKits.push_back(subKit);
  }
  CLOGI("ConfigManager::ReadKitConfigForFile", "ConfigManager.ReadKitConfigForFile end.");
  return true;
}

bool ConfigManager::ReadSubKitConfig(SubKitConfig& subKit, const std::string& kitName,
                                     const Json::Value& kitElement) {
  subKit.kitName = kitName;
  subKit.apiLevel = ValueText(kitElement["apiLevel"]);
  subKit.type = ValueText(kitElement["type"]);
  subKit.entry = ValueText(kitElement["entry"]);
  subKit.startup = ValueText(kitElement["startup"]);
  SupplySubKitConfig(subKit);

  subKit.minApiLevels = std::make_shared<KitMinApiLevelList>();
  const Json::Value& minLevels = kitElement["minApiLevel"];
  for (Json::ArrayIndex i = 0; i < minLevels.size(); ++i) {
    auto minLevel = std::make_shared<KitMinApiLevel>();
    minLevel->kitName = ValueText(minLevels[i]["kitName"]);
    minLevel->level = ValueText(minLevels[i]["level"]);
    subKit.minApiLevels->push_back(minLevel);
  }

  subKit.apis = std::make_shared<KitApiInfoList>();
  const Json::Value& apis = kitElement["apis"];
  for (Json::ArrayIndex i = 0; i < apis.size(); ++i) {
    const Json::Value& element = apis[i];
    auto api = std::make_shared<KitApiInfo>();
    api->permission = ValueText(element["permission"]);
    std::string tail = ValueText(element["apiName"]);
    api->apiName = tail;
    // uri and scopeUri count as given by type: an empty string is a value, null is not.
    const Json::Value& uri = element["uri"];
    if (!uri.isNull()) tail = ValueText(uri);
    api->uri = kitName + "." + tail;
    api->verifyCaller = ValueText(element["verifyCaller"]);
    const Json::Value& scopeUri = element["scopeUri"];
    api->scopeUri = scopeUri.isNull() ? std::string() : ValueText(scopeUri);
    SupplyKitApiConfig(*api);
    subKit.apis->push_back(api);
  }
  return true;
}

bool ConfigManager::SupplySubKitConfig(SubKitConfig& subKit) {
  if (subKit.type.empty()) subKit.type = "app";
  if (subKit.entry.empty()) subKit.entry = "Init";
  if (subKit.startup.empty()) subKit.startup = "true";
  CLOGI("ConfigManager::SupplySubKitConfig",
        "SupplySubKitConfig config kitName = " << subKit.kitName << " type = " << subKit.type
                                               << " entry = " << subKit.entry
                                               << " startup = " << subKit.startup);
  return true;
}

bool ConfigManager::SupplyKitApiConfig(KitApiInfo& api) {
  if (api.verifyCaller.empty()) api.verifyCaller = "true";
  CLOGD("ConfigManager::SupplyKitApiConfig", "SupplyKitApiConfig verifyCaller = " << api.verifyCaller);
  return true;
}

bool ConfigManager::FilterSubKitConfig(SubKitConfigList& outSubKits,
                                       const std::shared_ptr<SubKitConfigList>& remoteSubKits) {
  if (outSubKits.empty()) return true;
  // A kit runs only if the remote configuration names it.
  for (auto it = outSubKits.begin(); it != outSubKits.end();) {
    if (IsSubKitListed((*it)->kitName, remoteSubKits)) {
      ++it;
    } else {
      it = outSubKits.erase(it);
    }
  }
  return true;
}

bool ConfigManager::IsSubKitListed(const std::string& kitName,
                                   const std::shared_ptr<SubKitConfigList>& remoteSubKits) {
  if (!remoteSubKits) return false;
  for (const auto& subKit : *remoteSubKits) {
    if (subKit && subKit->kitName == kitName) return true;
  }
  return false;
}

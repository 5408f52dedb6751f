// Reading a package's kitManifest.json into the kit tree.
#include <json/json.h>
#include <sys/stat.h>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "config/ConfigReaders.h"
#include "config/ConfigText.h"
#include "platform/commonutil/de.h"
#include "platform/log/tarn_log.h"

namespace {

void LogSubKitSupplied(const SubKitConfig& subKit) {
  CLOGI("ConfigManager::SupplySubKitConfig",
        "SupplySubKitConfig config kitName = " << subKit.kitName << " type = " << subKit.type
                                               << " entry = " << subKit.entry
                                               << " startup = " << subKit.startup);
}

void LogApiSupplied(const KitApiInfo& api) {
  CLOGD("ConfigManager::SupplyKitApiConfig", "SupplyKitApiConfig verifyCaller = " << api.verifyCaller);
}

// The container's log lines for each kit and api of a manifest.
class ContainerManifestSink : public tarn::config::ManifestSink {
 public:
  void SubKitSupplied(const SubKitConfig& subKit) override { LogSubKitSupplied(subKit); }
  void ApiSupplied(const KitApiInfo& api) override { LogApiSupplied(api); }
};

}  // namespace

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
  ContainerManifestSink sink;
  tarn::config::ReadManifestKits(root, packageName, digest, outSubKits, sink);
  CLOGI("ConfigManager::ReadKitConfigForFile", "ConfigManager.ReadKitConfigForFile end.");
  return true;
}

bool ConfigManager::ReadSubKitConfig(SubKitConfig& subKit, const std::string& kitName,
                                     const Json::Value& kitElement) {
  ContainerManifestSink sink;
  tarn::config::ReadSubKitElement(subKit, kitName, kitElement, sink);
  return true;
}

bool ConfigManager::SupplySubKitConfig(SubKitConfig& subKit) {
  tarn::config::SupplySubKitDefaults(subKit);
  LogSubKitSupplied(subKit);
  return true;
}

bool ConfigManager::SupplyKitApiConfig(KitApiInfo& api) {
  tarn::config::SupplyKitApiDefaults(api);
  LogApiSupplied(api);
  return true;
}

bool ConfigManager::FilterSubKitConfig(SubKitConfigList& outSubKits,
                                       const std::shared_ptr<SubKitConfigList>& remoteSubKits) {
  tarn::config::FilterSubKits(outSubKits, remoteSubKits.get());
  return true;
}

bool ConfigManager::IsSubKitListed(const std::string& kitName,
                                   const std::shared_ptr<SubKitConfigList>& remoteSubKits) {
  return tarn::config::IsKitListed(kitName, remoteSubKits.get());
}

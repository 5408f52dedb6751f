#include "config/ConfigReaders.h"

#include <stdexcept>

#include "config/ConfigManager.h"
#include "config/ConfigText.h"

namespace tarn::config {

RemoteConfigChoice ChooseRemoteConfig(const std::string& installDirectory) {
  RemoteConfigChoice choice;
  choice.path = installDirectory + kRemoteConfigFile;
  const std::string cached = installDirectory + kCachedRemoteConfigFile;
  Json::Value root;
  bool opened = false;
  int error = 0;
  const bool parsed = ParseConfigFile(cached, root, opened, error);
  if (!opened) return choice;
  // Only a sound copy wins; anything else leaves the installed one.
  if (parsed && root.isObject() && root[kKeyPackageInfo].isArray()) {
    choice.path = cached;
    choice.cache = RemoteConfigChoice::Cache::kChosen;
  } else {
    choice.cache = RemoteConfigChoice::Cache::kUnsound;
  }
  return choice;
}

KeyValue ReadKeyValue(const Json::Value& root, const char* key, std::int32_t defaultValue,
                      std::int32_t minKeyValue) {
  KeyValue result;
  result.value = defaultValue;
  const std::string text = ValueText(root[key]);
  if (text.empty()) return result;
  try {
    result.read = Stol32(text);
  } catch (const std::invalid_argument& e) {
    result.problem = KeyValue::Problem::kInvalid;
    result.what = e.what();
    return result;
  } catch (const std::out_of_range& e) {
    result.problem = KeyValue::Problem::kOutOfRange;
    result.what = e.what();
    return result;
  }
  // Below the minimum means the default, not the minimum.
  if (result.read >= minKeyValue) {
    result.value = result.read;
  } else {
    result.problem = KeyValue::Problem::kTooSmall;
  }
  return result;
}

void ReadPackageList(const Json::Value& root, const std::string& installedVersion,
                     PackageInfoList& list, PackageListSink& sink) {
  const Json::Value& packages = root[kKeyPackageInfo];
  for (Json::ArrayIndex i = 0; i < packages.size(); ++i) {
    const Json::Value& element = packages[i];
    auto info = std::make_shared<PackageInfo>();
    list.push_back(info);  // in the list whatever follows
    info->packageName = ValueText(element[kKeyPackageName]);
    const std::string forceUpdate = ValueText(element[kKeyForceUpdate]);
    info->forceUpdate = "0";
    if (forceUpdate == "1" || forceUpdate == "2") {
      info->invalidVersionCodes = std::make_shared<VersionCodeList>();
      const Json::Value& codes = element[kKeyInvalidVersionCode];
      for (Json::ArrayIndex j = 0; j < codes.size(); ++j) {
        std::string code = ValueText(codes[j]);
        info->invalidVersionCodes->push_back(code);
        sink.VersionCodeRead(code);
        // Condemned only when the installed version is listed, byte for byte.
        if (code == installedVersion) info->forceUpdate = forceUpdate;
      }
      sink.ForceUpdateSettled(*info);
    }
    if (info->forceUpdate == "1") sink.ForcedPackage(ValueText(root[kKeyForceUpgradeTimeInterval]));
    info->subKits = std::make_shared<SubKitConfigList>();
    const Json::Value& subKits = element[kKeySubKits];
    for (Json::ArrayIndex j = 0; j < subKits.size(); ++j) {
      auto subKit = std::make_shared<SubKitConfig>();
      subKit->kitName = ValueText(subKits[j][kKeyKitName]);
      info->subKits->push_back(subKit);
    }
    sink.PackageRead(*info);
  }
}

void SupplySubKitDefaults(SubKitConfig& subKit) {
  if (subKit.type.empty()) subKit.type = "app";
  if (subKit.entry.empty()) subKit.entry = "Init";
  if (subKit.startup.empty()) subKit.startup = "true";
}

void SupplyKitApiDefaults(KitApiInfo& api) {
  if (api.verifyCaller.empty()) api.verifyCaller = "true";
}

void ReadSubKitElement(SubKitConfig& subKit, const std::string& kitName, const Json::Value& element,
                       ManifestSink& sink) {
  subKit.kitName = kitName;
  subKit.apiLevel = ValueText(element["apiLevel"]);
  subKit.type = ValueText(element["type"]);
  subKit.entry = ValueText(element["entry"]);
  subKit.startup = ValueText(element["startup"]);
  SupplySubKitDefaults(subKit);
  sink.SubKitSupplied(subKit);

  subKit.minApiLevels = std::make_shared<KitMinApiLevelList>();
  const Json::Value& minLevels = element["minApiLevel"];
  for (Json::ArrayIndex i = 0; i < minLevels.size(); ++i) {
    auto minLevel = std::make_shared<KitMinApiLevel>();
    minLevel->kitName = ValueText(minLevels[i]["kitName"]);
    minLevel->level = ValueText(minLevels[i]["level"]);
    subKit.minApiLevels->push_back(minLevel);
  }

  subKit.apis = std::make_shared<KitApiInfoList>();
  const Json::Value& apis = element["apis"];
  for (Json::ArrayIndex i = 0; i < apis.size(); ++i) {
    const Json::Value& entry = apis[i];
    auto api = std::make_shared<KitApiInfo>();
    api->permission = ValueText(entry["permission"]);
    std::string tail = ValueText(entry["apiName"]);
    api->apiName = tail;
    // uri and scopeUri count as given by type: an empty string is a value, null is not.
    const Json::Value& uri = entry["uri"];
    if (!uri.isNull()) tail = ValueText(uri);
    api->uri = kitName + "." + tail;
    api->verifyCaller = ValueText(entry["verifyCaller"]);
    const Json::Value& scopeUri = entry["scopeUri"];
    api->scopeUri = scopeUri.isNull() ? std::string() : ValueText(scopeUri);
    SupplyKitApiDefaults(*api);
    sink.ApiSupplied(*api);
    subKit.apis->push_back(api);
  }
}

void ReadManifestKits(const Json::Value& root, const std::string& packageName,
                      const std::string& digest, SubKitConfigList& out, ManifestSink& sink) {
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
    ReadSubKitElement(*subKit, kitName, element, sink);
    out.push_back(subKit);
  }
}

bool IsKitListed(const std::string& kitName, const SubKitConfigList* remoteSubKits) {
  if (!remoteSubKits) return false;
  for (const auto& subKit : *remoteSubKits) {
    if (subKit && subKit->kitName == kitName) return true;
  }
  return false;
}

void FilterSubKits(SubKitConfigList& subKits, const SubKitConfigList* remoteSubKits) {
  // A kit runs only if the remote configuration names it.
  subKits.remove_if([&](const std::shared_ptr<SubKitConfig>& subKit) {
    return !IsKitListed(subKit->kitName, remoteSubKits);
  });
}

}  // namespace tarn::config

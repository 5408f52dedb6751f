#pragma once
// Plain configuration records. They are shared through std::shared_ptr so that
// a reader may keep one beyond a refresh of the configuration.
#include <list>
#include <memory>
#include <string>

#include "platform/os/event.h"

struct KitMinApiLevel {
  std::string kitName;
  std::string level;  // decimal text
};

struct KitApiInfo {
  std::string uri;  // "<kitName>.<uri or apiName>"
  std::string apiName;
  std::string permission;
  std::string verifyCaller = "true";
  std::string scopeUri;
};

using KitMinApiLevelList = std::list<std::shared_ptr<KitMinApiLevel>>;
using KitApiInfoList = std::list<std::shared_ptr<KitApiInfo>>;

struct SubKitConfig {
  std::string packageName;
  std::string version;
  std::string fileName;
  std::string kitName;
  std::string apiLevel;  // decimal text
  std::string type;
  std::string entry;
  std::string startup;
  std::string kitManifVerify;  // hex SHA-256 of the manifest file
  // Completion event of this sub-kit's loader thread; written by the kit loader.
  std::shared_ptr<tarn::os::Event> hEvent;
  // Null in a record that names a kit of the remote configuration.
  std::shared_ptr<KitMinApiLevelList> minApiLevels;
  std::shared_ptr<KitApiInfoList> apis;
};

using SubKitConfigList = std::list<std::shared_ptr<SubKitConfig>>;

struct KitConfig {
  std::shared_ptr<SubKitConfigList> subKits;
};

// One api with what the kit runtime needs of its sub-kit: the value of the dispatch map.
struct KitApiDetailInfo {
  std::string uri;
  std::string apiName;
  std::string permission;
  std::string verifyCaller = "true";
  std::string packageName;
  std::string version;
  std::string fileName;
  std::string kitName;
  std::string apiLevel;
  std::string type = "app";
  std::string entry = "Init";
  std::string startup = "true";
  std::string invokeType;  // "DLL" for kit apis, "FRAMEWORK" for the built-in kit
  std::string kitManifVerify;
  std::shared_ptr<KitMinApiLevelList> minApiLevels;  // shared with the sub-kit, not copied
  std::string scopeUri;
};

using VersionCodeList = std::list<std::string>;

struct PackageInfo {
  std::string packageName;
  std::string forceUpdate;  // "0", "1" or "2"
  std::shared_ptr<VersionCodeList> invalidVersionCodes;  // null unless asked for "1" or "2"
  std::shared_ptr<SubKitConfigList> subKits;  // only kitName filled in
};

using PackageInfoList = std::list<std::shared_ptr<PackageInfo>>;

struct RemoteConfigInfo {
  std::string version;  // installed version, registry value "Version"
  std::string level;    // the platform's own API level
  std::string reserved;
  std::shared_ptr<PackageInfoList> packageInfoList = std::make_shared<PackageInfoList>();
};

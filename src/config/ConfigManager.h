#pragma once
// The process-wide configuration: the remote configuration with its periods
// and package list, the kit manifests of the named packages, and the dispatch
// map from request uri to kit api.
//
// The maps and the package list take no lock: request threads read them while
// the rare refresh rewrites them. Records are shared, so a reader may keep one
// beyond a refresh; a reader that walks a container during one is not protected.
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "config/ConfigRecords.h"
#include "pipeline/Records.h"

namespace Json {
class Value;
}

// Wait of the refresh worker before its next fetch, ms.
extern std::atomic<std::uint32_t> g_forceUpdateTimeperiod;
// What that wait becomes after the first fetch, ms.
extern std::atomic<std::uint32_t> g_timePeriodOneday;

namespace tarn::config {

// Keys of remoteConfig.json.
inline constexpr const char* kKeyTimerPeriodTarnCoreUpdate = "TimerPeriodTarnCoreUpdate";
inline constexpr const char* kKeyForceUpgradeTimeInterval = "forceUpgradeTimeInterval";
inline constexpr const char* kKeyForceUpdateTimeForTest = "forceUpdateTimeForTest";
inline constexpr const char* kKeyEvReportTimePeriod = "evReportTimePeriod";
inline constexpr const char* kKeyUpgradeTimeAfterStart = "upgradeTimeAfterStart";
inline constexpr const char* kKeyPackageInfo = "packageInfo";
inline constexpr const char* kKeyPackageName = "packageName";
inline constexpr const char* kKeyForceUpdate = "forceUpdate";
inline constexpr const char* kKeyInvalidVersionCode = "invalidVersionCode";
inline constexpr const char* kKeySubKits = "subKits";
inline constexpr const char* kKeyKitName = "kitName";
// Declared keys that nothing reads; a file may carry them.
inline constexpr const char* kKeyTimerPeriodKitStoreCheck = "TimerPeriodKitStoreCheck";
inline constexpr const char* kKeyTimerPeriodKitManagerUpdate = "TimerPeriodKitManagerUpdate";
inline constexpr const char* kKeySignVerify = "SignVerify";
inline constexpr const char* kKeyAutoUpgradePDCUrl = "AutoUpgradePDCUrl";
inline constexpr const char* kKeyConfigServerUrl = "ConfigServerUrl";
inline constexpr const char* kKeyOpenGatewayUrl = "OpenGatewayUrl";
inline constexpr const char* kKeyEVServiceURL = "EVServiceURL";
inline constexpr const char* kKeyDownloadRemoteConfig = "DownloadRemoteConfig";

// Install-relative places, '/'-separated.
inline constexpr const char* kRemoteConfigFile = "config/remoteConfig.json";
inline constexpr const char* kCachedRemoteConfigFile = "config/cache/remoteConfig.json";
inline constexpr const char* kKitsDir = "kits/";
inline constexpr const char* kKitManifestFile = "/kitManifest.json";
inline constexpr const char* kServiceInfoFile = "/ServiceInfo.json";

// Callers with at least this SDK get the newer of each pair of codes.
inline constexpr const char* kNewSdkVersion = "5.3.0.300";

}  // namespace tarn::config

using KitConfigMap = std::map<std::string, std::shared_ptr<KitConfig>>;
using KitApiDispathMap = std::map<std::string, std::shared_ptr<KitApiDetailInfo>>;

class ConfigManager {
 public:
  static ConfigManager& GetInstance();

  ConfigManager(const ConfigManager&) = delete;
  ConfigManager& operator=(const ConfigManager&) = delete;

  // Periods in ms; plain 32-bit words read by other threads.
  std::atomic<std::uint32_t> timerPeriodKitStoreCheck{604800000};
  std::atomic<std::uint32_t> timerPeriodTarnCoreUpdate{604800000};
  std::atomic<std::uint32_t> timerPeriodKitManagerUpdate{3600000};
  std::atomic<std::uint32_t> evReportTimePeriod{600000};
  std::atomic<std::uint32_t> upgradeTimeAfterStart{600000};
  // Signature and manifest checks; true from construction and never cleared.
  bool verifyEnabled = true;
  RemoteConfigInfo remoteConfig;
  KitConfigMap kitConfigMap;
  KitApiDispathMap kitApiDispathMap;
  // Wakes the refresh worker.
  std::shared_ptr<tarn::os::Event> configEvent;
  // False while the first fetch of the refresh is owed.
  std::atomic<bool> configCheckDone{true};

  // Reads the configuration and builds the dispatch map. False when the file
  // can't be read (the service has then been asked to stop) or no package was read.
  // A JSON value of the wrong kind throws Json::LogicError to the caller.
  bool Init();
  // Chooses the copy, reads and applies it. False when it doesn't open or isn't JSON.
  bool ReadRemoteConfig();
  void LoadConfigParams(const Json::Value& root);
  void HandleNotVerifyInfo(const Json::Value& root);
  std::int32_t GetKeyValue(const Json::Value& root, const char* key, std::int32_t defaultValue,
                           std::int32_t minKeyValue);
  void GetPackageInfoList(const Json::Value& root);
  // Takes the text of forceUpgradeTimeInterval, in days.
  void RefreshSlientUpdatePeriod(const std::string& value);

  // Kit manifests.
  bool ReadKitConfigForPackage(std::string packageName,
                               const std::shared_ptr<SubKitConfigList>& remoteSubKits);
  bool ReadKitServiceForPackage(std::string packageName);
  bool ReadKitConfigForFile(const std::string& packageName, const std::string& configFilePath,
                            SubKitConfigList& outSubKits);
  bool ReadSubKitConfig(SubKitConfig& subKit, const std::string& kitName,
                        const Json::Value& kitElement);
  bool SupplySubKitConfig(SubKitConfig& subKit);
  bool SupplyKitApiConfig(KitApiInfo& api);
  bool FilterSubKitConfig(SubKitConfigList& outSubKits,
                          const std::shared_ptr<SubKitConfigList>& remoteSubKits);
  bool IsSubKitListed(const std::string& kitName,
                      const std::shared_ptr<SubKitConfigList>& remoteSubKits);

  // Dispatch map and the questions the gates ask of it.
  bool ConstuctApiDispathMap();
  // Lower-cases `uri` in place. True unless the map is empty; `info` is filled
  // only when some key matches without regard to case.
  bool GetAPIInfo(std::string& uri, KitApiDetailInfo& info, ResponseStatus& status);
  // GetAPIInfo with a fresh record, without the copy: the same scan, logs,
  // lower-casing and status; the matching record, or null when none matched.
  std::shared_ptr<const KitApiDetailInfo> FindAPIInfo(std::string& uri, ResponseStatus& status);
  // True if the caller's apiLevel is served. Lower-cases header.api_name.
  bool CheckApiLevel(RequestHeader& header, ResponseStatus& status);
  void GetKitApiLevel(const std::string& kitName, std::string& apiLevel);
  void GetAllSubKitConfig(SubKitConfigList& subKitList);
  // "0" unless a package of the remote configuration lists the kit.
  void GetForceUpdateFlag(const std::string& kitName, std::string& forceUpdate);
  // The scope service's answer whether the client holds the permission; false
  // when the service gives none.
  bool CheckScopePermission(std::string permission, std::string clientId);

  // The refresh: a worker started by Init fetches the cloud's copy a minute
  // after the start and then daily, saves it in the cache when it differs and
  // applies it (config/ConfigRefresh.h has what it needs from outside).
  // Thread function; takes the ThreadParam of ThreadManager, returns 0.
  static std::uint32_t WorkerThread(void* param);
  // False only when the fetch failed.
  bool GetConfigFromCloud();
  // 0 saved in the cache, 1 same as the cached copy, 2 failed.
  int DownloadConfigFile();
  // True if the cached copy has the same lines as the body.
  bool CompareContent(const std::string& content);
  // Loads the listed packages that aren't loaded yet and makes sure of the scope service.
  void ReloadKitsAfterRefresh();

  // Back to the state of construction, for tests that run Init again. Workers
  // of earlier runs leave at their next wake without fetching.
  void ResetForTesting();

 private:
  ConfigManager() = default;
  // Bumped by ResetForTesting; a worker leaves when it no longer matches.
  std::atomic<std::uint64_t> workerGeneration_{0};
  // configEvent is replaced by Init and by a test's reset while a worker
  // started earlier may be taking its copy.
  std::mutex configEventMutex_;
  // The scan of GetAPIInfo with its debug lines; `matched` tells a matching
  // key from none.
  std::shared_ptr<KitApiDetailInfo> ScanApiDispathMap(std::string& uri, bool& matched);
};

// Fills `path` with the copy of remoteConfig.json to read: the cached copy if it
// is a JSON object with a "packageInfo" array, else the installed copy.
void GetRemoteConfigPath(std::string& path);

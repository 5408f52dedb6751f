#include "config/ConfigManager.h"

#include <json/json.h>

#include <stdexcept>

#include "config/ConfigPlatform.h"
#include "config/ConfigReaders.h"
#include "config/ConfigText.h"
#include "platform/log/tarn_log.h"
#include "platform/os/registry.h"
#include "thread/ThreadManager.h"

std::atomic<std::uint32_t> g_forceUpdateTimeperiod{60000};
std::atomic<std::uint32_t> g_timePeriodOneday{86400000};

namespace {

constexpr std::uint32_t kOneDayMs = 86400000;

// Built before main, as the rest of the process expects.
ConfigManager& g_configManagerAtStart = ConfigManager::GetInstance();

}  // namespace

ConfigManager& ConfigManager::GetInstance() {
  static auto* instance = new ConfigManager;  // threads WaitAll left behind may still read it
  return *instance;
}

void ConfigManager::ResetForTesting() {
  timerPeriodKitStoreCheck = 604800000;
  timerPeriodTarnCoreUpdate = 604800000;
  timerPeriodKitManagerUpdate = 3600000;
  evReportTimePeriod = 600000;
  upgradeTimeAfterStart = 600000;
  verifyEnabled = true;
  remoteConfig = RemoteConfigInfo{};
  kitConfigMap.clear();
  kitApiDispathMap.clear();
  {
    std::lock_guard lock(configEventMutex_);
    configEvent = nullptr;
  }
  configCheckDone = true;
  g_forceUpdateTimeperiod = 60000;
  g_timePeriodOneday = kOneDayMs;
  ++workerGeneration_;
}

bool ConfigManager::Init() {
  CLOGI("ConfigManager::Init", "ConfigManager.Init begin.");
  // Each call makes a new event; the refresh worker waits on it.
  {
    std::lock_guard lock(configEventMutex_);
    configEvent = tarn::os::Event::Create(false, false);
  }
  // It waits a minute before its first fetch, so the reading below isn't raced.
  if (!VantrelThread::ThreadManager::Instance().Create(&ConfigManager::WorkerThread, nullptr,
                                                       "ConfigManager::WorkerThread", false)) {
    CLOGI("ConfigManager::Init", "StartAutoUpdateRemote failed.");
  }
  if (!ReadRemoteConfig()) {
    CLOGE("ConfigManager::Init", "ReadRemoteConfig failed.");
    return false;
  }
  if (!ConstuctApiDispathMap()) {
    CLOGE("ConfigManager::Init", "ConstuctApiDispathMap failed.");
    return false;
  }
  CLOGI("ConfigManager::Init", "ConfigManager.Init end.");
  return true;
}

void GetRemoteConfigPath(std::string& path) {
  path = tarn::config::ChooseRemoteConfig(tarn::config::InstallDirectory()).path;
}

bool ConfigManager::ReadRemoteConfig() {
  std::string path;
  GetRemoteConfigPath(path);
  Json::Value root;
  bool opened = false;
  int error = 0;
  bool parsed = tarn::config::ParseConfigFile(path, root, opened, error);
  if (!opened) {
    CLOGE("ConfigManager::ReadRemoteConfig",
          "Remoteconfig " << path << " invalid, cannot start error: " << error
                          << " Stop TarnCoreService and Exit TarnCoreContainer.");
    StopTarnCoreService();
    return false;
  }
  if (!parsed) {
    CLOGE("ConfigManager::ReadRemoteConfig",
          "get remoteConfig faield, data parse error. file: " << path);
    StopTarnCoreService();
    return false;
  }
  LoadConfigParams(root);
  // The version comes before the packages: their force update test compares against it.
  std::string version;
  ReadVtidRegistryValue("Version", version);
  remoteConfig.version = version;
  remoteConfig.level = "3";
  GetPackageInfoList(root);
  CLOGI("ConfigManager::ReadRemoteConfig",
        "The current x64 TARNCORE version = " << remoteConfig.version);
  return true;
}

void ConfigManager::LoadConfigParams(const Json::Value& root) {
  timerPeriodTarnCoreUpdate = static_cast<std::uint32_t>(
      GetKeyValue(root, tarn::config::kKeyTimerPeriodTarnCoreUpdate, 86400000, 60000));
  CLOGI("ConfigManager::LoadConfigParams",
        "RemoteConfig param TimerPeriodTarnCoreUpdate = " << timerPeriodTarnCoreUpdate.load());
  if (!verifyEnabled) HandleNotVerifyInfo(root);
}

void ConfigManager::HandleNotVerifyInfo(const Json::Value& root) {
  g_timePeriodOneday = static_cast<std::uint32_t>(
      GetKeyValue(root, tarn::config::kKeyForceUpdateTimeForTest, 86400000, 60000));
  evReportTimePeriod = static_cast<std::uint32_t>(
      GetKeyValue(root, tarn::config::kKeyEvReportTimePeriod, 600000, 30000));
  upgradeTimeAfterStart = static_cast<std::uint32_t>(
      GetKeyValue(root, tarn::config::kKeyUpgradeTimeAfterStart, 600000, 60000));
  CLOGI("ConfigManager::HandleNotVerifyInfo",
        "RemoteConfig param Handle Not Verify g_timePeriodOneday = "
            << g_timePeriodOneday.load() << " evReportTimePeriod = " << evReportTimePeriod.load()
            << " upgradeTimeAfterStart = " << upgradeTimeAfterStart.load());
}

std::int32_t ConfigManager::GetKeyValue(const Json::Value& root, const char* key,
                                        std::int32_t defaultValue, std::int32_t minKeyValue) {
  const tarn::config::KeyValue result = tarn::config::ReadKeyValue(root, key, defaultValue, minKeyValue);
  switch (result.problem) {
    case tarn::config::KeyValue::Problem::kNone:
      break;
    case tarn::config::KeyValue::Problem::kInvalid:
      CLOGE("ConfigManager::GetKeyValue", "GetKeyValue invalid_argument. " << result.what);
      break;
    case tarn::config::KeyValue::Problem::kOutOfRange:
      CLOGE("ConfigManager::GetKeyValue", "GetKeyValue out_of_range. " << result.what);
      break;
    case tarn::config::KeyValue::Problem::kTooSmall:
      CLOGE("ConfigManager::GetKeyValue", "Key \"" << key << "\" value is too small minKeyValue = "
                                                   << minKeyValue << " keyValue = " << result.read);
      break;
  }
  return result.value;
}

namespace {

// The container's side of reading the package list: its log lines, the
// update period of a condemned package and each package's manifest and services.
class ContainerPackageSink : public tarn::config::PackageListSink {
 public:
  explicit ContainerPackageSink(ConfigManager& manager) : manager_(manager) {}

  void VersionCodeRead(const std::string& code) override {
    CLOGI("ConfigManager::GetPackageInfoList", "ForceUpdate invalidVersionCode list = " << code);
  }
  void ForceUpdateSettled(const PackageInfo& info) override {
    CLOGI("ConfigManager::GetPackageInfoList",
          "ForceUpdate current install version = " << manager_.remoteConfig.version << "packageName = "
                                                   << info.packageName << " forceUpdate = "
                                                   << info.forceUpdate);
  }
  void ForcedPackage(const std::string& intervalText) override {
    manager_.RefreshSlientUpdatePeriod(intervalText);
  }
  void PackageRead(const PackageInfo& info) override {
    manager_.ReadKitConfigForPackage(info.packageName, info.subKits);
    manager_.ReadKitServiceForPackage(info.packageName);
  }

 private:
  ConfigManager& manager_;
};

}  // namespace

void ConfigManager::GetPackageInfoList(const Json::Value& root) {
  auto list = std::make_shared<PackageInfoList>();
  remoteConfig.packageInfoList = list;
  ContainerPackageSink sink(*this);
  tarn::config::ReadPackageList(root, remoteConfig.version, *list, sink);
}

void ConfigManager::RefreshSlientUpdatePeriod(const std::string& value) {
  if (value.empty()) {
    timerPeriodTarnCoreUpdate = kOneDayMs;
  } else {
    std::int32_t days = 1;
    try {
      std::int32_t read = tarn::config::Stol32(value);
      days = read >= 1 ? read : 1;
    } catch (const std::invalid_argument& e) {
      CLOGE("ConfigManager::RefreshSlientUpdatePeriod",
            "RefreshSlientUpdatePeriod invalid_argument. " << e.what());
    } catch (const std::out_of_range& e) {
      CLOGE("ConfigManager::RefreshSlientUpdatePeriod",
            "RefreshSlientUpdatePeriod out_of_range. " << e.what());
    }
    // A 32-bit product: from 50 days on the period wraps around, as it always has.
    timerPeriodTarnCoreUpdate = static_cast<std::uint32_t>(days) * kOneDayMs;
  }
  CLOGI("ConfigManager::RefreshSlientUpdatePeriod",
        "RemoteConfig param There is kit forceupdate = 1, TimerPeriodTarnCoreUpdate = "
            << timerPeriodTarnCoreUpdate.load());
}

// remoteConfig.json as the configuration's start reads it: the input is the
// installed copy, or (odd first byte) the cached copy beside a sound installed
// one, which must then win only when it is sound itself. The packages it names
// are read (one has a manifest in place) and the dispatch map is built. Only
// jsoncpp's LogicError may leave (a value of the wrong kind): the start hands
// it to its caller.
#include <json/value.h>

#include <filesystem>
#include <string>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "fuzz_support.h"

namespace {

using tarn::fuzz::Check;

constexpr const char* kVersion = "6.0.1.10";
constexpr const char* kSoundConfig =
    "{\"TimerPeriodTarnCoreUpdate\":\"86400000\",\"packageInfo\":[{\"packageName\":\"com.fuzz.kit\","
    "\"forceUpdate\":\"0\",\"invalidVersionCode\":[],\"subKits\":[{\"kitName\":\"Fuzz\"}]}]}";
constexpr const char* kManifest =
    "{\"version\":\"1.0\",\"fileName\":\"libfuzz.so\",\"kits\":[{\"kitName\":\"Fuzz\",\"apiLevel\":\"3\","
    "\"apis\":[{\"apiName\":\"Echo\"},{\"apiName\":\"Other\",\"permission\":\"p\"}]}]}";

class CountingStops : public tarn::config::ServiceControl {
 public:
  void StopTarnCoreService() override { ++stops; }
  int stops = 0;
};

void ReadAndCheck(ConfigManager& config, const CountingStops& control, bool intoCache, const std::string& install) {
  std::string chosen;
  GetRemoteConfigPath(chosen);
  const bool read = config.ReadRemoteConfig();
  Check(control.stops == (read ? 0 : 1), "a file that can't be read stops the service, once");
  if (!read) {
    Check(!intoCache, "a sound installed copy is always read");
    return;
  }
  const auto& packages = *config.remoteConfig.packageInfoList;
  if (intoCache && chosen == install + tarn::config::kRemoteConfigFile) {
    Check(packages.size() == 1 && packages.front()->packageName == "com.fuzz.kit",
          "an unsound cache leaves the installed copy");
  }
  bool forced = false;
  for (const auto& package : packages) {
    const std::string& flag = package->forceUpdate;
    Check(flag == "0" || flag == "1" || flag == "2", "forceUpdate is 0, 1 or 2");
    if (flag == "0") continue;
    forced = forced || flag == "1";
    bool listed = false;
    for (const auto& code : *package->invalidVersionCodes) listed = listed || code == kVersion;
    Check(listed, "a package is condemned only when the installed version is listed");
  }
  if (!forced) Check(config.timerPeriodTarnCoreUpdate >= 60000, "the update period's minimum");
  Check(config.ConstuctApiDispathMap() == !config.kitConfigMap.empty(), "the map needs a package");
  for (const auto& package : packages) {
    for (const auto& kit : *package->subKits) {
      std::string flag;
      config.GetForceUpdateFlag(kit->kitName, flag);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto& root = tarn::fuzz::Machine();
  static const std::string install = root.At("opt/tarncore/");
  static CountingStops control;
  static const bool prepared = [&] {
    tarn::config::SetInstallDirectoryForTesting(install);
    tarn::config::SetServiceControlForTesting(&control);
    root.WriteFile("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/Version", kVersion);
    root.WriteFile("opt/tarncore/kits/com.fuzz.kit/kitManifest.json", kManifest);
    return true;
  }();
  (void)prepared;
  if (size < 1) return 0;
  const bool intoCache = data[0] & 1;
  const auto text = tarn::fuzz::Bytes(data + 1, size - 1);
  if (intoCache) {
    root.WriteFile("opt/tarncore/config/remoteConfig.json", kSoundConfig);
    root.WriteFile("opt/tarncore/config/cache/remoteConfig.json", text);
  } else {
    root.WriteFile("opt/tarncore/config/remoteConfig.json", text);
    std::filesystem::remove(install + tarn::config::kCachedRemoteConfigFile);
  }

  ConfigManager& config = ConfigManager::GetInstance();
  config.ResetForTesting();
  control.stops = 0;
  try {
    ReadAndCheck(config, control, intoCache, install);
  } catch (const Json::LogicError&) {
  }
  return 0;
}

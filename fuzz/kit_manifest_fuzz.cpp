// A package's kitManifest.json as the configuration reads it: the package's
// kits filtered by the remote list, the dispatch map built from them, and
// every api looked up by its uri and level-checked as a request would be.
// Only jsoncpp's LogicError may leave (an object or array where a value
// belongs): the configuration's start hands it to its caller.
#include <json/value.h>

#include <cctype>
#include <string>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "fuzz_support.h"

namespace {

using tarn::fuzz::Check;

const std::string kPackage = "com.fuzz.kit";

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool IsHexDigest(const std::string& text) {
  if (text.size() != 64) return false;
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

void ReadAndServe(ConfigManager& config, const std::string& path) {
  SubKitConfigList all;
  Check(config.ReadKitConfigForFile(kPackage, path, all) || all.empty(), "a failed read yields no kit");
  // The remote list names every other kit of the manifest.
  auto listed = std::make_shared<SubKitConfigList>();
  SubKitConfigList kept;
  bool take = true;
  for (const auto& kit : all) {
    if (take) {
      auto named = std::make_shared<SubKitConfig>();
      named->kitName = kit->kitName;
      listed->push_back(named);
    }
    take = !take;
  }
  for (const auto& kit : all) {
    for (const auto& named : *listed) {
      if (named->kitName == kit->kitName) {
        kept.push_back(kit);
        break;
      }
    }
  }

  config.ReadKitConfigForPackage(kPackage, listed);
  const auto& subKits = *config.kitConfigMap.at(kPackage)->subKits;
  Check(subKits.size() == kept.size(), "the remote list keeps exactly the kits it names");
  for (const auto& kit : subKits) {
    Check(kit->packageName == kPackage && IsHexDigest(kit->kitManifVerify), "package and digest");
    Check(!kit->type.empty() && !kit->entry.empty() && !kit->startup.empty(), "kit defaults");
    for (const auto& api : *kit->apis) {
      Check(api->uri.compare(0, kit->kitName.size() + 1, kit->kitName + ".") == 0, "uri under the kit");
      Check(!api->verifyCaller.empty(), "verifyCaller default");
    }
  }

  Check(config.ConstuctApiDispathMap(), "a read package builds a map");
  for (const auto& kit : subKits) {
    for (const auto& api : *kit->apis) {
      std::string uri = api->uri;
      ResponseStatus status;
      auto found = config.FindAPIInfo(uri, status);
      Check(found && Lower(found->uri) == uri, "every api is found by its uri");
      RequestHeader header;
      header.srv_name = kit->kitName;
      header.api_name = api->uri;
      header.apiLevel = "1";
      config.CheckApiLevel(header, status);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto& root = tarn::fuzz::Machine();
  static const std::string install = root.At("opt/tarncore/");
  tarn::config::SetInstallDirectoryForTesting(install);
  const std::string path = install + "kits/" + kPackage + "/kitManifest.json";
  root.WriteFile("opt/tarncore/kits/" + kPackage + "/kitManifest.json", tarn::fuzz::Bytes(data, size));

  ConfigManager& config = ConfigManager::GetInstance();
  config.ResetForTesting();
  try {
    ReadAndServe(config, path);
  } catch (const Json::LogicError&) {
  }
  return 0;
}

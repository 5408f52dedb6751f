#include "support/ProductFeature.h"

#include <pugixml.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/commonutil/de.h"
#include "platform/os/places.h"

namespace ProductAdapt {

namespace {

// The file's keys, in the order of the feature flags.
constexpr const char* kFeatureKeys[] = {
    "fingerprint", "btgpio",  "wifigpio",   "cpupower",   "trifingersnipper",  "wifibiosrepair",
    "energystar",  "setepp",  "sqgdata",    "timeback",   "VrAssisant",        "npspopwnd",
    "livebroadcastmode", "officeActiveStatusCheck", "integratedGraphics"};

// Code names of the models whose power-safe management is off. The maker's
// list isn't known to this build, and no model name reaches the container
// anyway, so every machine counts as one that has it.
constexpr std::array<std::string_view, 0> kPowerSafeMgrExcluded{};

// Nothing in the container knows the machine's model.
const std::string kModelName;

std::mutex& PathMutex() {
  static std::mutex mutex;
  return mutex;
}
std::string& PathOverride() {
  static std::string path;
  return path;
}

std::string ConfigPath() {
  std::lock_guard<std::mutex> lock(PathMutex());
  if (!PathOverride().empty()) return PathOverride();
  const std::string directory = tarn::os::InstallDirectory();
  if (directory.empty()) return {};
  return directory + "config/product_adapter/ProductFeature.xml";
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

static_assert(sizeof(kFeatureKeys) / sizeof(kFeatureKeys[0]) == 15);

ProductFeature::ProductFeature() { Reset(); }

const ProductFeature& ProductFeature::GetInstance() {
  static const auto* instance = new ProductFeature;  // never destroyed: late threads read it
  return *instance;
}

void SetProductFeatureConfigPathForTesting(const std::string& path) {
  std::lock_guard<std::mutex> lock(PathMutex());
  PathOverride() = path;
}

void ProductFeature::Reset() const {
  status = LoadConfig();
  if (status != 0) {
    std::fill(std::begin(features), std::end(features), false);
    features[kFeatureCount - 1] = true;
  }
}

int ProductFeature::LoadConfig() const {
  const std::string path = ConfigPath();
  if (path.empty()) return -3;
  if (!DE::FileExists(path)) return -4;
  // The model key closes the name with ';', as the lists in the file do.
  const std::string modelKey = Lower(kModelName + ";");
  pugi::xml_document document;
  if (!document.load_file(path.c_str())) return -5;
  const pugi::xml_node root = document.document_element();
  if (root.empty()) return -6;
  for (const char* key : kFeatureKeys) InitProductFeatureInfo(&root, key, modelKey);
  return 0;
}

void ProductFeature::InitProductFeatureInfo(const void* rootNode, const char* key,
                                            const std::string& modelKey) const {
  const auto& root = *static_cast<const pugi::xml_node*>(rootNode);
  const pugi::xml_node feature = root.child(key);
  if (!feature) return;
  if (const pugi::xml_node support = feature.child("support")) {
    SetValueByFeature(key, Lower(support.text().get()).find(modelKey) != std::string::npos);
  } else if (const pugi::xml_node unsupport = feature.child("unsupport")) {
    SetValueByFeature(key, Lower(unsupport.text().get()).find(modelKey) == std::string::npos);
  }
}

void ProductFeature::SetValueByFeature(const char* key, bool value) const {
  for (int i = 0; i < kFeatureCount; ++i) {
    if (std::string(kFeatureKeys[i]) == key) {
      features[i] = value;
      return;
    }
  }
}

int ProductFeature::Get(int index, bool& flag) const {
  flag = status == 0 ? features[index] : false;
  return status;
}

int ProductFeature::GetFingerprintStatus(bool& flag) const { return Get(0, flag); }
int ProductFeature::GetBtGpioStatus(bool& flag) const { return Get(1, flag); }
int ProductFeature::GetWifiGpioStatus(bool& flag) const { return Get(2, flag); }
int ProductFeature::GetCpuPowerStatus(bool& flag) const { return Get(3, flag); }
int ProductFeature::GetTriFingerSnipperStatus(bool& flag) const { return Get(4, flag); }
int ProductFeature::GetWifiBiosRepairStatus(bool& flag) const { return Get(5, flag); }
int ProductFeature::GetEnergyStarStatus(bool& flag) const { return Get(6, flag); }
int ProductFeature::GetEppSettingStatus(bool& flag) const { return Get(7, flag); }
int ProductFeature::GetSQGDataStatus(bool& flag) const { return Get(8, flag); }
int ProductFeature::GetSupportTimeBackStatus(bool& flag) const { return Get(9, flag); }
int ProductFeature::GetSupportVrAssisantStatus(bool& flag) const { return Get(10, flag); }
int ProductFeature::GetSupportNpsPopStatus(bool& flag) const { return Get(11, flag); }
int ProductFeature::GetSupportLiveBroadcast(bool& flag) const { return Get(12, flag); }
int ProductFeature::GetSupportOfficeCheck(bool& flag) const { return Get(13, flag); }
int ProductFeature::GetSupportIntegratedGraphics(bool& flag) const { return Get(14, flag); }

int ProductFeature::GetPowerSafeMgrStatus(bool& flag) const {
  flag = true;
  if (kModelName.empty()) return 0;
  for (std::string_view model : kPowerSafeMgrExcluded) {
    if (Lower(kModelName) == Lower(std::string(model))) flag = false;
  }
  return 0;
}

}  // namespace ProductAdapt

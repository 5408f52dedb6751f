#pragma once
// The per-model feature table, config/product_adapter/ProductFeature.xml
// beside TarnCoreContainer. The container defines and exports the class; a kit
// that uses it resolves it from the program when it is loaded.
#include <cstdint>
#include <string>

#define TARN_PRODUCT_EXPORT __attribute__((visibility("default")))

namespace ProductAdapt {

class TARN_PRODUCT_EXPORT ProductFeature {
 public:
  // Made and loaded on first use.
  static const ProductFeature& GetInstance();

  // Loads the file again. Callable on the shared instance: kits hold it by
  // constant reference.
  void Reset() const;

  // Each getter gives the status of the last load (0, or -3 no path, -4 no
  // file, -5 not XML, -6 no root element): when it is 0, flag gets the
  // feature's value, otherwise false.
  int GetFingerprintStatus(bool& flag) const;
  int GetBtGpioStatus(bool& flag) const;
  int GetWifiGpioStatus(bool& flag) const;
  int GetCpuPowerStatus(bool& flag) const;
  int GetTriFingerSnipperStatus(bool& flag) const;
  int GetWifiBiosRepairStatus(bool& flag) const;
  int GetEnergyStarStatus(bool& flag) const;
  int GetEppSettingStatus(bool& flag) const;
  int GetSQGDataStatus(bool& flag) const;
  int GetSupportTimeBackStatus(bool& flag) const;
  int GetSupportVrAssisantStatus(bool& flag) const;
  int GetSupportNpsPopStatus(bool& flag) const;
  int GetSupportLiveBroadcast(bool& flag) const;
  int GetSupportOfficeCheck(bool& flag) const;
  int GetSupportIntegratedGraphics(bool& flag) const;
  // From the program's own list of models without power-safe management, not
  // from the file: true for any model not on it. Returns 0.
  int GetPowerSafeMgrStatus(bool& flag) const;

  ProductFeature(const ProductFeature&) = delete;
  ProductFeature& operator=(const ProductFeature&) = delete;

 private:
  ProductFeature();
  int LoadConfig() const;
  void InitProductFeatureInfo(const void* root, const char* key, const std::string& modelKey) const;
  void SetValueByFeature(const char* key, bool value) const;
  int Get(int index, bool& flag) const;

  // The result of the last load, then one flag per feature in the file's
  // key order; the last feature defaults to on.
  static constexpr int kFeatureCount = 15;
  mutable std::int32_t status = 0;
  mutable bool features[kFeatureCount] = {false, false, false, false, false, false, false, false,
                                          false, false, false, false, false, false, true};
};

}  // namespace ProductAdapt

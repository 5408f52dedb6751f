// ProductFeature.xml as the feature table loads it for the kits: any text
// gives a status of its own (0 loaded, -5 not XML, -6 no root element), and
// a table that did not load answers false to every getter but the last,
// which defaults to on.
#include <string>

#include "fuzz_support.h"
#include "support/ProductFeature.h"

namespace {

using tarn::fuzz::Check;
using Getter = int (ProductAdapt::ProductFeature::*)(bool&) const;

constexpr Getter kGetters[] = {
    &ProductAdapt::ProductFeature::GetFingerprintStatus,     &ProductAdapt::ProductFeature::GetBtGpioStatus,
    &ProductAdapt::ProductFeature::GetWifiGpioStatus,        &ProductAdapt::ProductFeature::GetCpuPowerStatus,
    &ProductAdapt::ProductFeature::GetTriFingerSnipperStatus, &ProductAdapt::ProductFeature::GetWifiBiosRepairStatus,
    &ProductAdapt::ProductFeature::GetEnergyStarStatus,      &ProductAdapt::ProductFeature::GetEppSettingStatus,
    &ProductAdapt::ProductFeature::GetSQGDataStatus,         &ProductAdapt::ProductFeature::GetSupportTimeBackStatus,
    &ProductAdapt::ProductFeature::GetSupportVrAssisantStatus, &ProductAdapt::ProductFeature::GetSupportNpsPopStatus,
    &ProductAdapt::ProductFeature::GetSupportLiveBroadcast,  &ProductAdapt::ProductFeature::GetSupportOfficeCheck,
    &ProductAdapt::ProductFeature::GetSupportIntegratedGraphics,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto& root = tarn::fuzz::Machine();
  static const bool prepared = [&] {
    ProductAdapt::SetProductFeatureConfigPathForTesting(root.At("opt/ProductFeature.xml"));
    return true;
  }();
  (void)prepared;
  root.WriteFile("opt/ProductFeature.xml", tarn::fuzz::Bytes(data, size));

  const auto& table = ProductAdapt::ProductFeature::GetInstance();
  table.Reset();
  bool flag = true;
  const int status = (table.*kGetters[0])(flag);
  Check(status == 0 || status == -5 || status == -6, "load status");
  for (Getter get : kGetters) {
    Check((table.*get)(flag) == status, "every getter gives the load's status");
    if (status != 0) Check(!flag, "a table that did not load answers false");
  }
  Check(table.GetPowerSafeMgrStatus(flag) == 0 && flag, "power-safe management comes from the program");
  return 0;
}

// The feature table kits read, and the operating system's name.
#include <gtest/gtest.h>

#include <string>

#include "support/ProductFeature.h"
#include "support/SystemEnvironment.h"
#include "support/temp_root.h"

namespace {

using ProductAdapt::ProductFeature;

class ProductFeatureTest : public testing::Test {
 protected:
  void TearDown() override { ProductAdapt::SetProductFeatureConfigPathForTesting(""); }
  const ProductFeature& Load(const std::string& xml) {
    root_.WriteFile("ProductFeature.xml", xml);
    ProductAdapt::SetProductFeatureConfigPathForTesting(root_.At("ProductFeature.xml"));
    const ProductFeature& features = ProductFeature::GetInstance();
    features.Reset();
    return features;
  }
  tarn::test::TempRoot root_;
};

TEST_F(ProductFeatureTest, ListsDecideByTheModelKey) {
  // No model name reaches the container, so its key is ";" alone: any list
  // with an entry holds it.
  const auto& features = Load(R"(<features>
      <fingerprint><support>ModelA;ModelB;</support></fingerprint>
      <btgpio><support></support></btgpio>
      <wifigpio><unsupport>ModelC;</unsupport></wifigpio>
      <cpupower><unsupport></unsupport></cpupower>
      <vrassisant><support>x;</support></vrassisant>
      <integratedGraphics><other/></integratedGraphics>
    </features>)");
  struct Case { int (ProductFeature::*getter)(bool&) const; bool expected; const char* what; };
  for (const Case& c : std::initializer_list<Case>{
      {&ProductFeature::GetFingerprintStatus, true, "support list with entries"},
      {&ProductFeature::GetBtGpioStatus, false, "empty support list"},
      {&ProductFeature::GetWifiGpioStatus, false, "unsupport list with entries"},
      {&ProductFeature::GetCpuPowerStatus, true, "empty unsupport list"},
      {&ProductFeature::GetSupportVrAssisantStatus, false, "key in the wrong case is absent"},
      {&ProductFeature::GetSupportIntegratedGraphics, true, "neither element keeps the default"},
      {&ProductFeature::GetEnergyStarStatus, false, "absent key keeps the default"}}) {
    bool flag = !c.expected;
    EXPECT_EQ((features.*c.getter)(flag), 0) << c.what;
    EXPECT_EQ(flag, c.expected) << c.what;
  }
}

TEST_F(ProductFeatureTest, FailedLoadClearsEveryFlag) {
  const auto& features = Load("<features><fingerprint><support>a;</support></fingerprint></features>");
  bool flag = false;
  ASSERT_EQ(features.GetFingerprintStatus(flag), 0);
  ASSERT_TRUE(flag);

  struct Case { const char* path; const char* content; int status; };  // path nullptr: the content
  for (const Case& c : {Case{"missing.xml", nullptr, -4}, Case{nullptr, "not xml <", -5}, Case{nullptr, "", -5}}) {
    if (c.path) {
      ProductAdapt::SetProductFeatureConfigPathForTesting(root_.At(c.path));
      features.Reset();
    } else {
      Load(c.content);
    }
    flag = true;
    EXPECT_EQ(features.GetFingerprintStatus(flag), c.status);
    EXPECT_FALSE(flag);
    // The last feature's own flag is back to on, yet a failed load gives false.
    flag = true;
    EXPECT_EQ(features.GetSupportIntegratedGraphics(flag), c.status);
    EXPECT_FALSE(flag);
  }
}

TEST(SystemEnvironmentTest, ProductNameFromOsRelease) {
  tarn::test::TempRoot root;
  EXPECT_EQ(SystemEnvironment::GetOSVersion(), "");
  root.WriteFile("etc/os-release", "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n");
  EXPECT_EQ(SystemEnvironment::GetOSVersion(), "Debian GNU/Linux 12 (bookworm)");
  // 128 bytes fit the copy; 129 don't, and the name comes back empty.
  root.WriteFile("etc/os-release", "PRETTY_NAME=\"" + std::string(128, 'w') + "\"\n");
  EXPECT_EQ(SystemEnvironment::GetOSVersion().size(), 128u);
  root.WriteFile("etc/os-release", "PRETTY_NAME=\"" + std::string(129, 'w') + "\"\n");
  EXPECT_EQ(SystemEnvironment::GetOSVersion(), "");
}

}  // namespace

// Number keys of the remote configuration: defaults, minimums and conversion.
#include <cstdint>

#include "config_fixture.h"
#include "support/json.h"

using tarn::log::Level;
using tarn::test::ParseJson;

namespace {

using ConfigParams = tarn::test::ConfigFixture;

TEST_F(ConfigParams, ValuesDefaultsAndMinimums) {
  struct Case {
    const char* json;   // the key's value; nullptr: no key
    std::int32_t value;
    const char* error;  // part of the one error line, or nullptr for none
  } cases[] = {
      {"3600000", 3600000, nullptr},
      {R"("3600000")", 3600000, nullptr},  // a number and its digit string read alike
      {"60000", 60000, nullptr},            // the minimum itself is allowed
      {R"("  70000")", 70000, nullptr},
      {R"("2147483647")", 2147483647, nullptr},
      {nullptr, 86400000, nullptr},  // missing, empty and null: the default without a word
      {R"("")", 86400000, nullptr},
      {"null", 86400000, nullptr},
      // Below the minimum falls back to the default, not the minimum.
      {"59999", 86400000, "Key \"TimerPeriodTarnCoreUpdate\" value is too small minKeyValue = 60000 keyValue = 59999(ConfigManager::GetKeyValue)"},
      {R"("12abc")", 86400000, "value is too small minKeyValue = 60000 keyValue = 12("},
      {R"("-70000")", 86400000, "keyValue = -70000("},
      {R"("abc")", 86400000, "GetKeyValue invalid_argument. invalid stol argument(ConfigManager::GetKeyValue)"},
      {"true", 86400000, "GetKeyValue invalid_argument. "},
      // A long is 32 bits here, whatever the host's long is.
      {R"("2147483648")", 86400000, "GetKeyValue out_of_range. stol argument out of range(ConfigManager::GetKeyValue)"},
      {"99999999999", 86400000, "GetKeyValue out_of_range. "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json ? c.json : "<missing>");
    log.Clear();
    const std::string text = c.json ? std::string(R"({"TimerPeriodTarnCoreUpdate":)") + c.json + "}" : "{}";
    EXPECT_EQ(cm.GetKeyValue(ParseJson(text), "TimerPeriodTarnCoreUpdate", 86400000, 60000), c.value);
    const auto errors = Errors();
    ASSERT_EQ(errors.size(), c.error ? 1u : 0u);
    EXPECT_TRUE(!c.error || errors[0].find(c.error) != std::string::npos) << errors[0];
  }
}

TEST_F(ConfigParams, TestKeysApplyWithTheirOwnMinimumsOnlyWhenNotVerifying) {
  cm.LoadConfigParams(ParseJson(R"({"TimerPeriodTarnCoreUpdate":"3600000","evReportTimePeriod":40000,
                                    "upgradeTimeAfterStart":70000,"forceUpdateTimeForTest":80000})"));
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 3600000u);
  EXPECT_TRUE(log.Has(Level::Info, "RemoteConfig param TimerPeriodTarnCoreUpdate = 3600000(ConfigManager::LoadConfigParams)"));
  EXPECT_EQ(cm.evReportTimePeriod, 600000u);
  EXPECT_EQ(cm.upgradeTimeAfterStart, 600000u);
  EXPECT_EQ(g_timePeriodOneday, 86400000u);

  cm.verifyEnabled = false;
  cm.LoadConfigParams(ParseJson(R"({"evReportTimePeriod":30000,"upgradeTimeAfterStart":60000,
                                    "forceUpdateTimeForTest":"60000"})"));
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 86400000u);
  EXPECT_EQ(g_timePeriodOneday, 60000u);
  EXPECT_EQ(cm.evReportTimePeriod, 30000u);
  EXPECT_EQ(cm.upgradeTimeAfterStart, 60000u);
  EXPECT_TRUE(log.Has(Level::Info, "RemoteConfig param Handle Not Verify g_timePeriodOneday = 60000 "
                                   "evReportTimePeriod = 30000 upgradeTimeAfterStart = 60000"
                                   "(ConfigManager::HandleNotVerifyInfo)"));
  cm.HandleNotVerifyInfo(ParseJson(R"({"evReportTimePeriod":29999,"upgradeTimeAfterStart":59999,
                                       "forceUpdateTimeForTest":59999})"));
  EXPECT_EQ(g_timePeriodOneday, 86400000u);
  EXPECT_EQ(cm.evReportTimePeriod, 600000u);
  EXPECT_EQ(cm.upgradeTimeAfterStart, 600000u);
  EXPECT_EQ(log.CountContaining("value is too small"), 3u);
}

TEST_F(ConfigParams, SilentUpdatePeriodIsWholeDaysWrappingIn32Bits) {
  struct Case {
    const char* value;
    std::uint32_t period;
  } cases[] = {
      {"", 86400000u},  {"0", 86400000u},  {"-3", 86400000u},        {"1", 86400000u},
      {"2", 172800000u}, {"49", 4233600000u}, {"50", 25032704u},     {"3days", 259200000u},
      {"abc", 86400000u}, {"99999999999", 86400000u},
  };
  for (const auto& c : cases) {
    cm.timerPeriodTarnCoreUpdate = 1;
    cm.RefreshSlientUpdatePeriod(c.value);
    EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, c.period) << c.value;
  }
  EXPECT_EQ(Errors(), (std::vector<std::string>{
                          "RefreshSlientUpdatePeriod invalid_argument. invalid stol argument(ConfigManager::RefreshSlientUpdatePeriod)",
                          "RefreshSlientUpdatePeriod out_of_range. stol argument out of range(ConfigManager::RefreshSlientUpdatePeriod)"}));
  EXPECT_TRUE(log.Has(Level::Info, "RemoteConfig param There is kit forceupdate = 1, TimerPeriodTarnCoreUpdate = "
                                   "25032704(ConfigManager::RefreshSlientUpdatePeriod)"));
}

}  // namespace

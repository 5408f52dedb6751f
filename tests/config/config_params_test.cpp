// Number keys of the remote configuration: defaults, minimums and conversion.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdint>

#include "config_fixture.h"

using tarn::log::Level;

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value root;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  EXPECT_TRUE(Json::parseFromStream(builder, in, &root, &errors)) << text;
  return root;
}

class ConfigParams : public tarn::test::ConfigFixture {
 protected:
  std::int32_t Period(const std::string& valueJson) {
    return cm.GetKeyValue(Parse(R"({"TimerPeriodTarnCoreUpdate":)" + valueJson + "}"),
                          "TimerPeriodTarnCoreUpdate", 86400000, 60000);
  }
};

TEST_F(ConfigParams, InitialValuesBeforeAnyFileIsRead) {
  EXPECT_EQ(cm.timerPeriodKitStoreCheck, 604800000u);
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 604800000u);
  EXPECT_EQ(cm.timerPeriodKitManagerUpdate, 3600000u);
  EXPECT_EQ(cm.evReportTimePeriod, 600000u);
  EXPECT_EQ(cm.upgradeTimeAfterStart, 600000u);
  EXPECT_TRUE(cm.verifyEnabled);
  EXPECT_TRUE(cm.configCheckDone);
  EXPECT_EQ(g_forceUpdateTimeperiod, 60000u);
  EXPECT_EQ(g_timePeriodOneday, 86400000u);
  ASSERT_NE(cm.remoteConfig.packageInfoList, nullptr);
  EXPECT_TRUE(cm.remoteConfig.packageInfoList->empty());
  EXPECT_TRUE(cm.kitConfigMap.empty());
  EXPECT_TRUE(cm.kitApiDispathMap.empty());
}

TEST_F(ConfigParams, MissingOrEmptyValueIsTheDefaultWithoutALogLine) {
  EXPECT_EQ(cm.GetKeyValue(Parse("{}"), "TimerPeriodTarnCoreUpdate", 86400000, 60000), 86400000);
  EXPECT_EQ(Period(R"("")"), 86400000);
  EXPECT_EQ(Period("null"), 86400000);
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(ConfigParams, NumberAndDigitStringReadAlike) {
  EXPECT_EQ(Period("3600000"), 3600000);
  EXPECT_EQ(Period(R"("3600000")"), 3600000);
  EXPECT_EQ(Period("60000"), 60000);  // the minimum itself is allowed
  EXPECT_EQ(Period(R"("  70000")"), 70000);  // leading blanks are skipped
  EXPECT_TRUE(ErrorLines().empty());
}

TEST_F(ConfigParams, BelowTheMinimumFallsBackToTheDefaultNotTheMinimum) {
  EXPECT_EQ(Period("59999"), 86400000);
  EXPECT_TRUE(log.Has(Level::Error,
                      "Key \"TimerPeriodTarnCoreUpdate\" value is too small minKeyValue = 60000 "
                      "keyValue = 59999(ConfigManager::GetKeyValue)"));
  // Conversion stops at the first non-digit: "12abc" reads as 12, which is too small.
  EXPECT_EQ(Period(R"("12abc")"), 86400000);
  EXPECT_TRUE(log.Contains("value is too small minKeyValue = 60000 keyValue = 12("));
  EXPECT_EQ(Period(R"("-70000")"), 86400000);
  EXPECT_TRUE(log.Contains("keyValue = -70000("));
}

TEST_F(ConfigParams, UnreadableOrOversizedTextIsTheDefaultWithItsError) {
  EXPECT_EQ(Period(R"("abc")"), 86400000);
  EXPECT_TRUE(log.Has(Level::Error,
                      "GetKeyValue invalid_argument. invalid stol argument(ConfigManager::GetKeyValue)"));
  EXPECT_EQ(Period("true"), 86400000);
  EXPECT_EQ(log.CountContaining("GetKeyValue invalid_argument. "), 2u);
  // A long is 32 bits here, whatever the host's long is.
  EXPECT_EQ(Period(R"("2147483648")"), 86400000);
  EXPECT_TRUE(log.Has(Level::Error,
                      "GetKeyValue out_of_range. stol argument out of range(ConfigManager::GetKeyValue)"));
  EXPECT_EQ(Period("99999999999"), 86400000);
  EXPECT_EQ(log.CountContaining("GetKeyValue out_of_range. "), 2u);
  EXPECT_EQ(Period(R"("2147483647")"), 2147483647);
}

TEST_F(ConfigParams, ObjectWhereANumberBelongsThrowsTheLibraryError) {
  EXPECT_THROW(Period(R"({"a":1})"), Json::LogicError);
  EXPECT_THROW(Period("[1]"), Json::LogicError);
  EXPECT_THROW(cm.GetKeyValue(Parse("[1,2]"), "TimerPeriodTarnCoreUpdate", 1, 1), Json::LogicError);
}

TEST_F(ConfigParams, LoadConfigParamsSetsOnlyTheUpdatePeriodWhileVerifying) {
  cm.LoadConfigParams(Parse(R"({"TimerPeriodTarnCoreUpdate":"3600000","evReportTimePeriod":40000,
                                "upgradeTimeAfterStart":70000,"forceUpdateTimeForTest":80000})"));
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 3600000u);
  EXPECT_TRUE(log.Has(Level::Info, "RemoteConfig param TimerPeriodTarnCoreUpdate = "
                                   "3600000(ConfigManager::LoadConfigParams)"));
  EXPECT_EQ(cm.evReportTimePeriod, 600000u);
  EXPECT_EQ(cm.upgradeTimeAfterStart, 600000u);
  EXPECT_EQ(g_timePeriodOneday, 86400000u);
  cm.LoadConfigParams(Parse("{}"));
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 86400000u);
}

TEST_F(ConfigParams, TestKeysApplyWithTheirOwnMinimumsWhenNotVerifying) {
  cm.verifyEnabled = false;
  cm.LoadConfigParams(Parse(R"({"evReportTimePeriod":30000,"upgradeTimeAfterStart":60000,
                                "forceUpdateTimeForTest":"60000"})"));
  EXPECT_EQ(g_timePeriodOneday, 60000u);
  EXPECT_EQ(cm.evReportTimePeriod, 30000u);
  EXPECT_EQ(cm.upgradeTimeAfterStart, 60000u);
  EXPECT_TRUE(log.Has(Level::Info,
                      "RemoteConfig param Handle Not Verify g_timePeriodOneday = 60000 "
                      "evReportTimePeriod = 30000 upgradeTimeAfterStart = 60000"
                      "(ConfigManager::HandleNotVerifyInfo)"));

  cm.HandleNotVerifyInfo(Parse(R"({"evReportTimePeriod":29999,"upgradeTimeAfterStart":59999,
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
      {"", 86400000u},         {"0", 86400000u},         {"-3", 86400000u},
      {"1", 86400000u},        {"2", 172800000u},        {"49", 4233600000u},
      {"50", 25032704u},       {"3days", 259200000u},    {"abc", 86400000u},
      {"99999999999", 86400000u},
  };
  for (const auto& c : cases) {
    cm.timerPeriodTarnCoreUpdate = 1;
    cm.RefreshSlientUpdatePeriod(c.value);
    EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, c.period) << c.value;
  }
  EXPECT_TRUE(log.Has(Level::Error, "RefreshSlientUpdatePeriod invalid_argument. invalid stol "
                                    "argument(ConfigManager::RefreshSlientUpdatePeriod)"));
  EXPECT_TRUE(log.Has(Level::Error, "RefreshSlientUpdatePeriod out_of_range. stol argument out of "
                                    "range(ConfigManager::RefreshSlientUpdatePeriod)"));
  EXPECT_TRUE(log.Has(Level::Info,
                      "RemoteConfig param There is kit forceupdate = 1, TimerPeriodTarnCoreUpdate = "
                      "25032704(ConfigManager::RefreshSlientUpdatePeriod)"));
  EXPECT_EQ(ErrorLines().size(), 2u);
}

}  // namespace

#include "access/zbrf_log_adapter.h"

#include <gtest/gtest.h>

#include "platform/log/log_capture.h"

namespace {

using tarn::log::Level;

TEST(ZbrfLogAdapterTest, EachSlotGoesToItsLevelUnderTheFrameworksTag) {
  tarn::log::LogCapture log;
  ZbrfLogAdapter adapter;
  tarn::zbrf::LogAdapter& slots = adapter;
  slots.Print("zbrf", "print");
  slots.Debug("zbrf", "debug");
  slots.Info("zbrf", "info");
  slots.Warn("zbrf", "warn");
  slots.Error("zbrf", "error");
  slots.Fatal("zbrf", "fatal");
  const std::vector<std::pair<Level, std::string>> expected = {
      {Level::Info, "print"}, {Level::Debug, "debug"}, {Level::Info, "info"},
      {Level::Warn, "warn"},  {Level::Error, "error"}, {Level::Error, "fatal"}};
  auto records = log.Records();
  ASSERT_EQ(records.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(records[i].level, expected[i].first) << i;
    EXPECT_EQ(records[i].text, expected[i].second) << i;
    EXPECT_EQ(records[i].tag, "zbrf") << i;
  }
}

}  // namespace

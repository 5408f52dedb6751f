#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/log/log_capture.h"
#include "platform/log/tarn_log.h"
#include "support/temp_root.h"

using tarn::log::Level;
using tarn::log::LogCapture;

namespace {

int g_formatted = 0;
struct Counted {};
std::ostream& operator<<(std::ostream& os, const Counted&) {
  ++g_formatted;
  return os << "counted";
}

TEST(Log, DisabledLevelSkipsFormatting) {
  LogCapture capture;
  tarn::log::SetThreshold(Level::Info);
  g_formatted = 0;
  CLOGD("X::Y", "value " << Counted{});
  EXPECT_EQ(g_formatted, 0);
  EXPECT_TRUE(capture.Records().empty());
  tarn::log::SetThreshold(Level::Debug);
  CLOGD("X::Y", "value " << Counted{});
  EXPECT_EQ(g_formatted, 1);
  EXPECT_TRUE(capture.Has(Level::Debug, "value counted(X::Y)"));
}

TEST(Log, FileUnderMachineRootReceivesLinesAndDirectoriesAreMade) {
  tarn::test::TempRoot root;
  LogCapture capture;  // keeps the threshold at debug
  tarn::log::Open("LogTest", 2, 1);
  EXPECT_EQ(tarn::log::LogFilePath(), root.At("var/lib/Vantrel/TARNCORE/log/LogTest.log"));
  CLOGI("LogTest::Run", "line for the file");
  FlushTarnLogFile();
  std::stringstream content;
  content << std::ifstream(tarn::log::LogFilePath()).rdbuf();
  EXPECT_NE(content.str().find("[I] [container] line for the file(LogTest::Run)"), std::string::npos)
      << content.str();

  EXPECT_TRUE(TarnCreateDirbyLev(root.At("a/b/c"), 0));
  EXPECT_TRUE(TarnCreateDirbyLev(root.At("a/b/c"), 0));
  root.WriteFile("file", "x");
  EXPECT_FALSE(TarnCreateDirbyLev(root.At("file/sub"), 0));
}

}  // namespace

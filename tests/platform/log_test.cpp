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

}  // namespace

TEST(Log, FormsMessageThenFunctionName) {
  LogCapture capture;
  CLOGI("KitManagerApi::Init", "KitManagerApi.Init begin.");
  CLOGE("ThreadManager::ThreadEndHandle", "TerminateThread fail error = " << 1168);
  EXPECT_TRUE(capture.Has(Level::Info, "KitManagerApi.Init begin.(KitManagerApi::Init)"));
  EXPECT_TRUE(capture.Has(Level::Error,
                          "TerminateThread fail error = 1168(ThreadManager::ThreadEndHandle)"));
  ASSERT_EQ(capture.Records().size(), 2u);
  EXPECT_EQ(capture.Records()[0].tag, "container");
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

TEST(Log, PlainFunctionsKeepTheirTag) {
  LogCapture capture;
  TARNLOGW("zbrf", "adapter text");
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, Level::Warn);
  EXPECT_EQ(records[0].tag, "zbrf");
  EXPECT_EQ(records[0].text, "adapter text");
}

TEST(Log, FileUnderMachineRootReceivesLines) {
  tarn::test::TempRoot root;
  LogCapture capture;  // keeps the threshold at debug
  tarn::log::Open("LogTest", 2, 1);
  const std::string path = tarn::log::LogFilePath();
  EXPECT_EQ(path, root.At("var/lib/Vantrel/TARNCORE/log/LogTest.log"));
  CLOGI("LogTest::Run", "line for the file");
  FlushTarnLogFile();
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  EXPECT_NE(content.str().find("[I] [container] line for the file(LogTest::Run)"), std::string::npos)
      << content.str();
}

TEST(Log, CreateDirbyLevMakesTrees) {
  tarn::test::TempRoot root;
  EXPECT_TRUE(TarnCreateDirbyLev(root.At("a/b/c"), 0));
  EXPECT_TRUE(TarnCreateDirbyLev(root.At("a/b/c"), 0));
  root.WriteFile("file", "x");
  EXPECT_FALSE(TarnCreateDirbyLev(root.At("file/sub"), 0));
}

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

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
  const std::time_t before = std::time(nullptr);
  CLOGI("LogTest::Run", "line for the file");
  CLOGW("LogTest::Run", "and a warning");
  const std::time_t after = std::time(nullptr);
  FlushTarnLogFile();
  std::ifstream file(tarn::log::LogFilePath());
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 2u);
  // [local date and time.milliseconds] [pid:thread id] [level letter] [tag] text
  const std::regex shape(R"(\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.\d{3}\] \[(\d+):(\d+)\] \[([A-Z])\] (.*))");
  const std::pair<const char*, const char*> expected[] = {
      {"I", "[container] line for the file(LogTest::Run)"}, {"W", "[container] and a warning(LogTest::Run)"}};
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[i], m, shape)) << lines[i];
    std::tm tm{};
    ASSERT_TRUE(strptime(m[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &tm)) << lines[i];
    tm.tm_isdst = -1;
    const std::time_t when = std::mktime(&tm);
    EXPECT_TRUE(when >= before && when <= after) << lines[i];
    EXPECT_EQ(m[2], std::to_string(::getpid()));
    EXPECT_EQ(m[3], std::to_string(::gettid()));
    EXPECT_EQ(m[4], expected[i].first);
    EXPECT_EQ(m[5], expected[i].second);
  }

  // The folders made come out 0755 whatever the umask.
  const mode_t umask = ::umask(077);
  EXPECT_TRUE(TarnCreateDirbyLev(root.At("a/b/c"), 0));
  ::umask(umask);
  for (const char* dir : {"a", "a/b", "a/b/c"}) {
    struct stat st {};
    ASSERT_EQ(0, ::stat(root.At(dir).c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 07777) << dir;
  }
  EXPECT_TRUE(TarnCreateDirbyLev(root.At("a/b/c"), 0));
  root.WriteFile("file", "x");
  EXPECT_FALSE(TarnCreateDirbyLev(root.At("file/sub"), 0));
}

}  // namespace

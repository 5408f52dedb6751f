#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
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

std::vector<std::string> FileLines(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
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
  // time() reads the coarse clock, which can still be in the last second
  // when the line's precise stamp is in the next one.
  const auto now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
  const std::time_t before = now();
  CLOGI("LogTest::Run", "line for the file");
  CLOGW("LogTest::Run", "and a warning");
  const std::time_t after = now();
  // No flush: a warning takes everything before it to the disk at once.
  const auto lines = FileLines(tarn::log::LogFilePath());
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

// Threads log at once, with lines far longer than most now and then, through
// rotations: every line arrives once and whole, each thread's in its order,
// and every file ends with a whole line within its size.
TEST(Log, LinesOfManyThreadsArriveWholeAndInOrderAcrossRotations) {
  tarn::test::TempRoot root;
  tarn::log::Open("LogOrder", 10, 1);
  constexpr int kThreads = 8, kLines = 1500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        const std::size_t filler = i % 1000 == 999 ? 100000 : static_cast<std::size_t>(i % 97 * 10);
        CLOGI("LogTest::Order", "t" << t << " n" << i << " " << std::string(filler, 'x'));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  FlushTarnLogFile();

  namespace fs = std::filesystem;
  std::vector<std::string> lines;
  for (int file = 9; file >= 0; --file) {
    const fs::path path = root.At("var/lib/Vantrel/TARNCORE/log/LogOrder" +
                                  (file ? "." + std::to_string(file) : std::string()) + ".log");
    if (!fs::exists(path)) continue;
    EXPECT_LE(fs::file_size(path), 1024u * 1024u) << path;
    const auto more = FileLines(path);
    lines.insert(lines.end(), more.begin(), more.end());
  }
  // Taken apart by hand: the first test checks a line's shape, and std::regex
  // would recurse through a long line.
  const std::string marker = "] [I] [container] ", tail = "(LogTest::Order)";
  std::vector<int> next(kThreads, 0);
  for (const auto& line : lines) {
    const auto text = line.find(marker);
    ASSERT_TRUE(line.starts_with("[") && text != std::string::npos && line.ends_with(tail)) << line.substr(0, 200);
    int t = -1, i = -1, used = 0;
    const std::size_t at = text + marker.size();
    ASSERT_EQ(std::sscanf(line.c_str() + at, "t%d n%d %n", &t, &i, &used), 2) << line.substr(0, 200);
    ASSERT_TRUE(t >= 0 && t < kThreads) << line.substr(0, 200);
    ASSERT_EQ(i, next[t]) << "thread " << t;
    EXPECT_EQ(line.substr(at + used, line.size() - at - used - tail.size()),
              std::string(i % 1000 == 999 ? 100000 : i % 97 * 10, 'x'));
    ++next[t];
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

// Lines still on their way when the program ends are written at its exit.
TEST(Log, WhatIsLeftIsWrittenAtExit) {
  tarn::test::TempRoot root;
  // The child runs this test again from its start, in a root of its own; it
  // is told the parent's.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ::setenv("TARN_LOG_TEST_ROOT", root.path().c_str(), 0);
  EXPECT_EXIT(
      {
        ::setenv("TARNCORE_ROOT", std::getenv("TARN_LOG_TEST_ROOT"), 1);
        tarn::log::Open("LogExit", 2, 1);
        for (int i = 0; i < 100; ++i) CLOGI("LogTest::Exit", "line " << i);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  ::unsetenv("TARN_LOG_TEST_ROOT");
  const auto written = FileLines(root.At("var/lib/Vantrel/TARNCORE/log/LogExit.log"));
  ASSERT_EQ(written.size(), 100u);
  EXPECT_TRUE(written.back().ends_with("line 99(LogTest::Exit)")) << written.back();
}

}  // namespace

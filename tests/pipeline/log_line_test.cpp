// Every line of the pipeline is formed by the log's Line; it must read exactly
// as a fresh std::ostringstream would have made it, whatever was inserted.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>

#include "platform/log/log_capture.h"
#include "platform/log/tarn_log.h"
#include "support/temp_root.h"

namespace {

using tarn::log::Level;

// A value whose formatting logs a line of its own.
struct Logs {
  int value;
};
std::ostream& operator<<(std::ostream& os, const Logs& l) {
  CLOGI("Inner::Format", "inner " << l.value);
  return os << "logs" << l.value;
}

#define EXPECT_LINE_AS_STREAM(...)                                        \
  do {                                                                    \
    std::ostringstream reference;                                         \
    reference << __VA_ARGS__;                                             \
    tarn::log::Line line;                                                 \
    line << __VA_ARGS__;                                                  \
    EXPECT_EQ(reference.str(), std::string(line.Text())) << #__VA_ARGS__; \
  } while (0)

TEST(LogLine, ReadsAsAFreshStringStream) {
  const std::string text = "text";
  const char* nothing = nullptr;
  char buffer[] = "buffer";
  EXPECT_LINE_AS_STREAM("a" << text << std::string_view("view") << 'c' << buffer);
  EXPECT_LINE_AS_STREAM(-42 << " " << 7u << " " << INT64_MIN << " " << UINT64_MAX << " " << int16_t{-5});
  EXPECT_LINE_AS_STREAM(true << false << 1.5 << " " << 1e300 << " " << 0.1f);
  EXPECT_LINE_AS_STREAM(std::hex << 255 << " " << std::dec << 255 << std::showbase << std::hex << 16);
  EXPECT_LINE_AS_STREAM(std::setw(6) << 42 << std::setw(6) << "pad" << std::left << std::setw(5) << text << "|");
  EXPECT_LINE_AS_STREAM(std::setfill('*') << std::setw(4) << 1 << std::boolalpha << true);
  EXPECT_LINE_AS_STREAM("before" << nothing << "after" << 5 << text);
  EXPECT_LINE_AS_STREAM(static_cast<const void*>(nullptr) << " " << reinterpret_cast<void*>(0x1234));
}

TEST(LogLine, EachLineStartsFromDefaultFormattingAndNestedLinesStayWhole) {
  tarn::log::LogCapture capture;
  const char* nothing = nullptr;
  CLOGI("A::B", std::hex << std::setfill('0') << std::setw(4) << 255 << std::boolalpha << true);
  CLOGI("A::B", "broken " << nothing << " never shown");
  CLOGI("A::B", 255 << " " << true << " " << 3.25);
  CLOGI("Outer::Run", "outer " << 1 << " " << Logs{2} << " " << 3);
  std::vector<std::string> texts;
  for (const auto& r : capture.Records()) texts.push_back(r.text);
  // A failed stream drops the rest, "(A::B)" too.
  EXPECT_EQ((std::vector<std::string>{"00fftrue(A::B)", "broken ", "255 1 3.25(A::B)",
                                      "inner 2(Inner::Format)", "outer 1 logs2 3(Outer::Run)"}),
            texts);
}

// The log library's suite checks a file line's time, pid and thread. A line of
// the TARNLOG functions has its own tag, its level letter and no place.
TEST(LogLine, TaggedDebugLineInTheFile) {
  tarn::test::TempRoot root;
  tarn::log::LogCapture capture;  // keeps the threshold at debug
  tarn::log::Open("LogLineTest", 2, 1);
  TARNLOGD("zbrf", "second");
  FlushTarnLogFile();
  std::string line;
  std::getline(std::ifstream(tarn::log::LogFilePath()), line);
  EXPECT_TRUE(line.ends_with("] [D] [zbrf] second")) << line;
}

}  // namespace

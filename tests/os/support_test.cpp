#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/os/clock.h"
#include "platform/os/dbg_sdk.h"
#include "platform/os/random.h"
#include "support/temp_root.h"

using namespace tarn::os;

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(ClockTest, TickCountIsMonotonicMillisecondsAndReplaceable) {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  auto expected = static_cast<std::uint32_t>(static_cast<std::uint64_t>(ts.tv_sec) * 1000 +
                                             static_cast<std::uint64_t>(ts.tv_nsec) / 1000000);
  std::uint32_t ticks = GetTickCount();
  EXPECT_LT(ticks - expected, 1000u);
  Sleep(30);
  EXPECT_GE(GetTickCount() - ticks, 30u);

  FakeClock fake(0xFFFFFFF0u);
  SetClockForTesting(&fake);
  Sleep(0x20);  // a fake sleep returns at once and moves the clock across the wrap
  EXPECT_EQ(GetTickCount(), 0x10u);
  SetClockForTesting(nullptr);
  EXPECT_LT(GetTickCount() - ticks, 600000u);
}

TEST(RandomTest, FillsBuffersWithFreshBytes) {
  std::array<std::uint8_t, 64> a{}, b{};
  ASSERT_TRUE(CryptGenRandom(a.size(), a.data()));
  ASSERT_TRUE(CryptGenRandom(b.size(), b.data()));
  EXPECT_NE(a, b);
  EXPECT_NE(a, (std::array<std::uint8_t, 64>{}));
  EXPECT_TRUE(CryptGenRandom(0, nullptr));
}

TEST(CrashHandlerTest, FatalSignalWritesTheSignalAndABacktraceAndStillKills) {
  tarn::test::TempRoot root;
  for (int sig : {SIGSEGV, SIGABRT}) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      DbgSdkInit();
      if (sig == SIGABRT) ::abort();
      ::raise(sig);
      ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), sig);
    std::string path = CrashFilePath(child);
    EXPECT_EQ(path, root.At("var/lib/Vantrel/TARNCORE/log/crash-" + std::to_string(child) + ".txt"));
    std::string text = ReadAll(path);
    std::string name = sig == SIGSEGV ? "SIGSEGV" : "SIGABRT";
    EXPECT_EQ(text.rfind("signal " + std::to_string(sig) + " (" + name + ")\n", 0), 0u) << text;
    EXPECT_NE(text.find("backtrace:\n"), std::string::npos) << text;
    EXPECT_GT(text.size(), text.find("backtrace:\n") + 12);
  }
}

TEST(CrashHandlerTest, UninstalledHandlerWritesNothing) {
  tarn::test::TempRoot root;
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    DbgSdkInit();
    DbgSdkUnInit();
    ::abort();
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_FALSE(std::filesystem::exists(CrashFilePath(child)));
}

TEST(UcsTest, RemembersThePath) {
  TarnCoreUcs::InitUcsKmsLog("/var/lib/Vantrel/TARNCORE/log/tarnwucs");
  EXPECT_EQ(TarnCoreUcs::UcsKmsLogPath(), "/var/lib/Vantrel/TARNCORE/log/tarnwucs");
}

}  // namespace

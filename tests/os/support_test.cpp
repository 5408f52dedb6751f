#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/os/clock.h"
#include "platform/os/dbg_sdk.h"
#include "support/temp_root.h"

using namespace tarn::os;

namespace {

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

TEST(CrashHandlerTest, FatalSignalWritesTheSignalAndABacktraceAndStillKills) {
  tarn::test::TempRoot root;
  struct Case { int sig; const char* name; bool installed; };
  for (const Case& c : {Case{SIGSEGV, "SIGSEGV", true}, Case{SIGABRT, "SIGABRT", true},
                        Case{SIGABRT, "SIGABRT", false}}) {
    SCOPED_TRACE(std::string(c.name) + (c.installed ? " installed" : " uninstalled"));
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      DbgSdkInit();
      if (!c.installed) DbgSdkUnInit();
      if (c.sig == SIGABRT) ::abort();
      ::raise(c.sig);
      ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), c.sig);
    std::string path = CrashFilePath(child);
    EXPECT_EQ(path, root.At("var/lib/Vantrel/TARNCORE/log/crash-" + std::to_string(child) + ".txt"));
    if (!c.installed) {
      EXPECT_FALSE(std::filesystem::exists(path));
      continue;
    }
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    std::string text = s.str();
    EXPECT_EQ(text.rfind("signal " + std::to_string(c.sig) + " (" + c.name + ")\n", 0), 0u) << text;
    EXPECT_NE(text.find("backtrace:\n"), std::string::npos) << text;
    EXPECT_GT(text.size(), text.find("backtrace:\n") + 12);
  }
}

}  // namespace

// The container's start-up helpers that can run inside a test process.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "container/ContainerMain.h"
#include "platform/log/log_capture.h"
#include "platform/os/dbg_sdk.h"
#include "support/temp_root.h"

using tarn::log::Level;
using tarn::log::LogCapture;

namespace {

struct Caps {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  bool Get() { return ::syscall(SYS_capget, &header, data) == 0; }
  bool Set() { return ::syscall(SYS_capset, &header, data) == 0; }
  bool Has(bool effective) const {
    const auto& d = data[CAP_TO_INDEX(CAP_SYS_PTRACE)];
    return ((effective ? d.effective : d.permitted) & CAP_TO_MASK(CAP_SYS_PTRACE)) != 0;
  }
  void Drop(bool fromPermitted) {
    auto& d = data[CAP_TO_INDEX(CAP_SYS_PTRACE)];
    d.effective &= ~CAP_TO_MASK(CAP_SYS_PTRACE);
    if (fromPermitted) d.permitted &= ~CAP_TO_MASK(CAP_SYS_PTRACE);
  }
};

}  // namespace

TEST(WindowsSevenRule, NameDecidesAndArchitectureSixIsTheException) {
  // The test is on the name's text: "Windows 70" matches, "Windows7" does not.
  const struct { const char* name; std::uint16_t arch; bool terminate; } cases[] = {
      {"Windows 7 Professional", 9, true}, {"Microsoft WINDOWS 7 Ultimate", 0, true}, {"windows 7", 12, true},
      {"Windows 70", 9, true},             {"Windows 7", 6, false},                   {"Windows 10 Pro", 9, false},
      {"Windows7", 9, false},              {"Debian GNU/Linux 12 (bookworm)", 9, false}, {"", 9, false}};
  for (const auto& c : cases) EXPECT_EQ(MustTerminateAtExit(c.name, c.arch), c.terminate) << c.name << c.arch;
}

TEST(SetPrivilege, RaisesPtraceWhenPermittedAndSucceedsWithoutIt) {
  Caps caps;
  ASSERT_TRUE(caps.Get());
  if (!caps.Has(false)) GTEST_SKIP() << "CAP_SYS_PTRACE is not permitted to this test";
  EXPECT_TRUE(SetPrivilege(RaisePtraceCapability()));

  // In children: capabilities once dropped from the permitted set are gone for good.
  for (bool fromPermitted : {false, true}) {
    EXPECT_EXIT(
        {
          LogCapture capture;
          Caps c;
          c.Get();
          c.Drop(fromPermitted);
          if (!c.Set()) std::_Exit(2);
          const bool ok = SetPrivilege(RaisePtraceCapability());
          Caps after;
          after.Get();
          std::_Exit(ok && after.Has(true) != fromPermitted && capture.Records().empty() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "")
        << fromPermitted;
  }
}

TEST(InitDataDirectories, MakesTheFourFoldersOrLogsEachFailure) {
  const char* dirs[] = {"cache/", "log/tarnwucs", "ev", "ev/work"};
  {
    tarn::test::TempRoot root;
    LogCapture capture;
    InitDataDirectories();
    for (const char* dir : dirs) EXPECT_TRUE(std::filesystem::is_directory(root.At("var/lib/Vantrel/TARNCORE/") + dir)) << dir;
    EXPECT_FALSE(capture.Contains("Failed to create log directory"));
    EXPECT_EQ(TarnCoreUcs::UcsKmsLogPath(), root.At("var/lib/Vantrel/TARNCORE/log/tarnwucs"));
  }
  tarn::test::TempRoot root;
  root.WriteFile("var/lib/Vantrel/TARNCORE", "a file where the folders go");
  LogCapture capture;
  InitDataDirectories();
  for (const char* dir : dirs) {
    EXPECT_TRUE(capture.Has(Level::Error, "Failed to create log directory by privilege = " +
                                              root.At("var/lib/Vantrel/TARNCORE/") + dir + "(LogDirHandle)")) << dir;
  }
}

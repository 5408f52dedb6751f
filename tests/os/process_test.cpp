#include "platform/os/process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "platform/os/clock.h"
#include "platform/os/dbg_sdk.h"
#include "platform/os/last_error.h"
#include "platform/os/named_mutex.h"
#include "platform/os/pinned_file.h"
#include "support/eventually.h"
#include "support/temp_root.h"

namespace fs = std::filesystem;
using namespace tarn::os;

namespace {

using tarn::test::Eventually;
using tarn::test::ReadText;

constexpr uid_t kNobody = 65534;

TEST(ProcessTest, StartedProgramRunsDetachedAsItsUserAndIsFoundByItsLongNameWithoutCase) {
  tarn::test::TempRoot root;
  // Longer than the 15 characters comm keeps, and unique across runs.
  std::string name = "TarnCoreLongHelperName" + std::to_string(::getpid());
  std::string path = root.At(name);
  fs::copy_file("/usr/bin/sleep", path);
  fs::permissions(path, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
  int leaked[2];
  ASSERT_EQ(::pipe(leaked), 0);  // not close-on-exec: must not reach the program

  // The open file is what runs: the path names something else by then.
  const PinnedFile program(path);
  root.WriteFile(name + ".new", "#!/bin/sh\nexit 1\n");
  fs::rename(path + ".new", path);
  const bool asRoot = ::geteuid() == 0;
  StartAs nobody{kNobody, kNobody, {kNobody}, {"HOME=/", "ONLY=this"}};
  ASSERT_TRUE(GetProcesses().StartFile(program.fd(), path, "  30 ", asRoot ? &nobody : nullptr, -1));
  std::string upper = name;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::vector<pid_t> pids;
  Eventually([&] { return !(pids = SystemProcesses().FindByName(upper)).empty(); });
  ASSERT_EQ(pids.size(), 1u);
  pid_t pid = pids[0];
  EXPECT_TRUE(IsProcessRunning(name));
  EXPECT_TRUE(SystemProcesses().FindByName(name + "x").empty());
  // Among other names, in one look at /proc.
  EXPECT_EQ(SystemProcesses().FindByAnyName({"no-such-program", upper, name}), pids);
  EXPECT_FALSE(IsAnyProcessRunning({"no-such-program", name + "x"}));
  EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);  // not our child: nobody has to reap it
  EXPECT_EQ(::getsid(pid), pid);         // its own session

  std::set<std::string> fds;
  for (auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    fds.insert(entry.path().filename().string());
    EXPECT_EQ(fs::read_symlink(entry.path()), "/dev/null");
  }
  EXPECT_EQ(fds, (std::set<std::string>{"0", "1", "2"}));
  ::close(leaked[0]);
  ::close(leaked[1]);

  // exe turns to the program a moment before exec has laid out its arguments.
  std::string args;
  Eventually([&] { return !(args = ReadText("/proc/" + std::to_string(pid) + "/cmdline")).empty(); });
  EXPECT_EQ(args, path + std::string("\0" "30\0", 4));
  if (asRoot) {
    const std::string status = ReadText("/proc/" + std::to_string(pid) + "/status");
    EXPECT_NE(status.find("\nUid:\t65534\t65534\t65534\t65534\n"), std::string::npos) << status;
    EXPECT_NE(status.find("\nGid:\t65534\t65534\t65534\t65534\n"), std::string::npos) << status;
    const auto groups = status.find("\nGroups:");
    EXPECT_EQ(status.substr(groups, status.find('\n', groups + 1) - groups), "\nGroups:\t65534 ") << status;
    EXPECT_EQ(ReadText("/proc/" + std::to_string(pid) + "/environ"), std::string("HOME=/\0ONLY=this\0", 17));
  }

  // A process that has ended is not running, even before anyone reaped it.
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return SystemProcesses().FindByName(name).empty(); }));
}

TEST(ProcessTest, AStartThatFailsGivesTheErrno) {
  tarn::test::TempRoot root;
  const PinnedFile absent(root.At("absent"));
  SetLastError(0);
  EXPECT_FALSE(GetProcesses().StartFile(absent.fd(), absent.path(), "x", nullptr, -1));
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EBADF));
  // The exec's own failure, in the started process, comes back too.
  root.WriteFile("data", "not a program");
  fs::permissions(root.At("data"), fs::perms::owner_all);
  const PinnedFile data(root.At("data"));
  EXPECT_FALSE(GetProcesses().StartFile(data.fd(), data.path(), "", nullptr, -1));
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(ENOEXEC));
}

TEST(ProcessTest, RemoveTreeDetachedRemovesTheWholeTree) {
  tarn::test::TempRoot root;
  root.WriteFile("var/lib/Vantrel/TARNCORE/Download/pkg/a.bin", "x");
  root.WriteFile("var/lib/Vantrel/TARNCORE/Download/b.bin", "y");
  std::string dir = root.At("var/lib/Vantrel/TARNCORE/Download");
  ASSERT_TRUE(SystemProcesses().RemoveTreeDetached(dir));
  EXPECT_TRUE(Eventually([&] { return !fs::exists(dir); }));
  EXPECT_TRUE(fs::exists(root.At("var/lib/Vantrel/TARNCORE")));
}

// A flock belongs to an open file description, so a second description in this
// process meets the holder as another process would (TarnCoreNotice against a
// holder in another process is run by the notice tools' test).
TEST(NamedMutexTest, OpenSucceedsOnlyWhileSomeoneHoldsTheLockFile) {
  const char* name = "Global\\VTFrameworkNoticeMutex";
  tarn::test::TempRoot root;
  SetLastError(0);
  EXPECT_EQ(NamedMutex::Open(name), nullptr);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);

  auto held = NamedMutex::Create(name);
  ASSERT_TRUE(held && held->owned());
  EXPECT_NE(NamedMutex::Open(name), nullptr);
  auto mine = NamedMutex::Create(name);
  ASSERT_TRUE(mine);
  EXPECT_FALSE(mine->owned());
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);
  mine.reset();
  held.reset();  // as when the holder's process ends

  EXPECT_EQ(NamedMutex::Open(name), nullptr);  // the file alone is not the mutex
  EXPECT_TRUE(fs::exists(root.At("run/tarncore/locks/Global-VTFrameworkNoticeMutex")));
  held = NamedMutex::Create(name);  // Open's own test lock was let go
  ASSERT_TRUE(held && held->owned());
  EXPECT_NE(NamedMutex::Open(name), nullptr);
  held->Release();
  EXPECT_EQ(NamedMutex::Open(name), nullptr);

  // A program of another user holds it too (the notice runs as the person at
  // the desktop) once root has looked, on a lock file of its own and on one
  // root made.
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a child as another user";
  fs::permissions(root.At(""), fs::perms(0755));
  fs::remove_all(root.At("run/tarncore/locks"));
  EXPECT_EQ(NamedMutex::Open(name), nullptr);
  auto heldByAnotherUser = [](const char* mutexName) {
    SCOPED_TRACE(mutexName);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) _exit(2);
      auto mine = NamedMutex::Create(mutexName);
      const char owned = mine && mine->owned() ? '1' : '0';
      if (::write(ready[1], &owned, 1) != 1) _exit(3);
      ::pause();
      _exit(0);
    }
    ::close(ready[1]);
    char owned = 0;
    EXPECT_EQ(::read(ready[0], &owned, 1), 1);
    ::close(ready[0]);
    EXPECT_EQ(owned, '1');
    EXPECT_NE(NamedMutex::Open(mutexName), nullptr);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(NamedMutex::Open(mutexName), nullptr);
  };
  heldByAnotherUser(name);
  const char* rootMade = "Global\\MadeByRoot";
  ASSERT_TRUE(NamedMutex::Create(rootMade));
  heldByAnotherUser(rootMade);
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
      EXPECT_FALSE(fs::exists(path));
      continue;
    }
    const std::string text = ReadText(path);
    EXPECT_EQ(text.rfind("signal " + std::to_string(c.sig) + " (" + c.name + ")\n", 0), 0u) << text;
    EXPECT_NE(text.find("backtrace:\n"), std::string::npos) << text;
    EXPECT_GT(text.size(), text.find("backtrace:\n") + 12);
  }
}

}  // namespace

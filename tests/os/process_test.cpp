#include "platform/os/process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include "platform/commonutil/vtprocess.h"
#include "platform/os/last_error.h"
#include "support/temp_root.h"

namespace fs = std::filesystem;
using namespace tarn::os;

namespace {

bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 500 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return condition();
}

TEST(ProcessTest, StartedProgramRunsDetachedAndIsFoundByItsLongNameWithoutCase) {
  tarn::test::TempRoot root;
  // Longer than the 15 characters comm keeps, and unique across runs.
  std::string name = "TarnCoreLongHelperName" + std::to_string(::getpid());
  std::string path = root.At(name);
  fs::copy_file("/usr/bin/sleep", path);
  fs::permissions(path, fs::perms::owner_all);
  int leaked[2];
  ASSERT_EQ(::pipe(leaked), 0);  // not close-on-exec: must not reach the program

  ASSERT_TRUE(VTPROCESS::StartProcess(path, "  30 ", nullptr));
  std::string upper = name;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::vector<pid_t> pids;
  Eventually([&] { return !(pids = SystemProcesses().FindByName(upper)).empty(); });
  ASSERT_EQ(pids.size(), 1u);
  pid_t pid = pids[0];
  EXPECT_TRUE(IsProcessRunning(name));
  EXPECT_TRUE(SystemProcesses().FindByName(name + "x").empty());
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
  Eventually([&] {
    std::ifstream cmdline("/proc/" + std::to_string(pid) + "/cmdline");
    args.assign(std::istreambuf_iterator<char>(cmdline), std::istreambuf_iterator<char>());
    return !args.empty();
  });
  EXPECT_EQ(args, path + std::string("\0" "30\0", 4));

  // A process that has ended is not running, even before anyone reaped it.
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return SystemProcesses().FindByName(name).empty(); }));
}

TEST(ProcessTest, StartOfAMissingProgramFailsWithTheErrno) {
  tarn::test::TempRoot root;
  SetLastError(0);
  EXPECT_FALSE(VTPROCESS::StartProcess(root.At("absent"), "x"));
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(ENOENT));
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

}  // namespace

#include "platform/os/process.h"

#include <gtest/gtest.h>
#include <signal.h>
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
using namespace std::chrono_literals;

namespace {

// A name no process had before, also across repeated runs.
std::string UniqueName(const std::string& stem) {
  static int serial = 0;
  return stem + std::to_string(::getpid() % 100000) + "n" + std::to_string(++serial);
}

bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 500; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

pid_t ParentOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  std::getline(in, stat);
  auto close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  char state;
  int ppid = -1;
  std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid);
  return ppid;
}

class ProcessTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (pid_t pid : started_) ::kill(pid, SIGKILL);
  }
  // A copy of sleep under a name no other process has.
  std::string SleepCopy(const std::string& name) {
    std::string path = root_.At(name);
    fs::copy_file("/usr/bin/sleep", path);
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }
  std::vector<pid_t> WaitForName(const std::string& name) {
    std::vector<pid_t> pids;
    Eventually([&] {
      pids = SystemProcesses().FindByName(name);
      return !pids.empty();
    });
    started_.insert(started_.end(), pids.begin(), pids.end());
    return pids;
  }
  tarn::test::TempRoot root_;
  std::vector<pid_t> started_;
};

TEST_F(ProcessTest, StartedProgramRunsDetachedAndIsFoundByNameWithoutCase) {
  std::string name = UniqueName("TarnSleep");
  std::string path = SleepCopy(name);
  int leaked[2];
  ASSERT_EQ(::pipe(leaked), 0);  // not close-on-exec: must not reach the program

  ASSERT_TRUE(VTPROCESS::StartProcess(path, "  30 ", nullptr));
  std::string upper = name;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  auto pids = WaitForName(upper);
  ASSERT_EQ(pids.size(), 1u);
  pid_t pid = pids[0];
  EXPECT_NE(ParentOf(pid), ::getpid());  // not our child: nobody has to reap it
  EXPECT_EQ(::getsid(pid), pid);         // its own session

  std::set<std::string> fds;
  for (auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    fds.insert(entry.path().filename().string());
    EXPECT_EQ(fs::read_symlink(entry.path()), "/dev/null");
  }
  EXPECT_EQ(fds, (std::set<std::string>{"0", "1", "2"}));

  // exe turns to the program a moment before exec has laid out its arguments.
  std::string args;
  Eventually([&] {
    std::ifstream cmdline("/proc/" + std::to_string(pid) + "/cmdline");
    args.assign(std::istreambuf_iterator<char>(cmdline), std::istreambuf_iterator<char>());
    return !args.empty();
  });
  EXPECT_EQ(args, path + std::string("\0" "30\0", 4));
  ::close(leaked[0]);
  ::close(leaked[1]);

  EXPECT_TRUE(SystemProcesses().FindByName(name + "x").empty());

  // A process that has ended is not running, even before anyone reaped it.
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return SystemProcesses().FindByName(name).empty(); }));
}

TEST_F(ProcessTest, LongNamesMatchAndWideStartWorks) {
  std::string name = UniqueName("TarnCoreLongHelperName");
  std::string path = SleepCopy(name);
  ASSERT_TRUE(VTPROCESS::StartProcess(std::wstring(path.begin(), path.end()), L"30"));
  auto pids = WaitForName(name);
  ASSERT_EQ(pids.size(), 1u);
  EXPECT_TRUE(IsProcessRunning(name));
}

TEST_F(ProcessTest, StartOfAMissingProgramFailsWithTheErrno) {
  SetLastError(0);
  EXPECT_FALSE(VTPROCESS::StartProcess(root_.At("absent"), "x"));
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(ENOENT));
}

TEST_F(ProcessTest, RemoveTreeDetachedRemovesTheWholeTree) {
  root_.WriteFile("var/lib/Vantrel/TARNCORE/Download/pkg/a.bin", "x");
  root_.WriteFile("var/lib/Vantrel/TARNCORE/Download/b.bin", "y");
  std::string dir = root_.At("var/lib/Vantrel/TARNCORE/Download");
  ASSERT_TRUE(SystemProcesses().RemoveTreeDetached(dir));
  EXPECT_TRUE(Eventually([&] { return !fs::exists(dir); }));
  EXPECT_TRUE(fs::exists(root_.At("var/lib/Vantrel/TARNCORE")));
}

TEST(ProcessArgumentsTest, SplitAtBlanks) {
  EXPECT_EQ(SplitArguments("PrivacyNotice"), (std::vector<std::string>{"PrivacyNotice"}));
  EXPECT_EQ(SplitArguments(" a  b c "), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_TRUE(SplitArguments("").empty());
}

class RecordingProcesses : public Processes {
 public:
  std::vector<pid_t> FindByName(const std::string&) override { return {}; }
  bool StartProcess(const std::string& path, const std::string& arguments) override {
    started.push_back(path + "|" + arguments);
    return true;
  }
  bool RemoveTreeDetached(const std::string&) override { return true; }
  std::vector<std::string> started;
};

TEST(ProcessesInterfaceTest, InstalledDoubleServesTheHelpers) {
  RecordingProcesses fake;
  SetProcessesForTesting(&fake);
  EXPECT_TRUE(VTPROCESS::StartProcess(L"/opt/TarnCoreNotice", L"PrivacyAgree", nullptr));
  EXPECT_FALSE(IsProcessRunning("sleep"));
  SetProcessesForTesting(nullptr);
  EXPECT_EQ(fake.started, (std::vector<std::string>{"/opt/TarnCoreNotice|PrivacyAgree"}));
}

}  // namespace

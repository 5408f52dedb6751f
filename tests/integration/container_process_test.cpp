// TarnCoreContainer started by hand: its exit handle, work status and start-up pause.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "programs.h"

using namespace std::chrono_literals;
using namespace tarn::test;

namespace {

constexpr const char* kBroadcastLine = "ServerManager.SendServiceStartBroadcast start.";

// Reads from fd until `size` bytes came or the limit passed.
std::string ReadBytes(int fd, std::size_t size, std::chrono::milliseconds limit) {
  std::string got;
  const auto end = std::chrono::steady_clock::now() + limit;
  while (got.size() < size && std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    char buf[256];
    ssize_t n = ::read(fd, buf, std::min(sizeof(buf), size - got.size()));
    if (n <= 0) break;
    got.append(buf, static_cast<std::size_t>(n));
  }
  return got;
}

std::string Utf16le(const std::string& ascii) {
  std::string out;
  for (char c : ascii) out += std::string{c, '\0'};
  return out;
}

// A container logging at debug level, its exit pipe at descriptor 5, its standard output on a pipe.
struct RunningContainer {
  pid_t pid = -1;
  int exitWrite = -1, output = -1;

  RunningContainer(const std::string& program, const std::string& handleText) {
    int ex[2], out[2];
    if (::pipe2(ex, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid = Spawn({program, handleText}, {out[1], ex[0], 5, {"SPDLOG_LEVEL=debug"}});
    ::close(ex[0]);
    ::close(out[1]);
    exitWrite = ex[1];
    output = out[0];
  }
  ~RunningContainer() {
    if (exitWrite >= 0) ::close(exitWrite);
    if (output >= 0) ::close(output);
    if (pid > 0) KillAndReap(pid);
  }
  // The service's end: the container's exit handle signals.
  void CloseExitPipe() {
    ::close(exitWrite);
    exitWrite = -1;
  }
  int Wait(std::chrono::milliseconds limit) {
    int status = -1;
    if (!WaitExit(pid, limit, &status)) return -1;
    pid = -1;
    return status;
  }
};

// Reading the handle's text is tested on its own; here: none at all, and a
// descriptor that is not open.
TEST(ContainerByHand, WithoutAValidExitHandleItEndsAtOnce) {
  TempRoot root;
  const std::string program = InstallPrograms(root) + "TarnCoreContainer";
  int n = 0;
  for (const auto& argv : std::vector<std::vector<std::string>>{{program}, {program, "0x3e7"}}) {
    ++n;
    int status = -1;
    ASSERT_TRUE(WaitExit(Spawn(argv), 15s, &status)) << argv.size();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(CountText(ContainerLog(root), "[E] [container] Function excuted failed 9(main)"), n);
    EXPECT_EQ(CountText(ContainerLog(root), "Main, flush log and TarnCoreContainer end.(main)"), n);
  }
  EXPECT_EQ(CountText(ContainerLog(root), "TarnCoreService stop"), 0);
}

TEST(ContainerByHand, TheWorkStatusWordThenAnExitDuringThePauseSkipsTheStartupTail) {
  TempRoot root;
  const std::string program = InstallPrograms(root) + "TarnCoreContainer";
  const std::string word = Utf16le("NotifyWorkStatus1");
  {
    RunningContainer c(program, "5");  // hex without its prefix
    ASSERT_EQ(ReadBytes(c.output, word.size(), 15s), word);
    c.CloseExitPipe();
    const int status = c.Wait(10s);
    EXPECT_EQ(ReadBytes(c.output, 2, 300ms), "");  // no terminator, nothing more
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(CountText(ContainerLog(root), "Main, TarnCoreService stop, TarnCoreContainer exit(main)"), 1);
    EXPECT_EQ(CountText(ContainerLog(root), "TarnCoreContainer.svcThreadFun end.(svcThreadFun)"), 1);
    EXPECT_EQ(CountText(ContainerLog(root), kBroadcastLine), 0);
    EXPECT_EQ(CountText(ContainerLog(root), "Function excuted failed"), 0);
  }
  // Left alone for the pause, the tail runs; a crash then leaves its report.
  RunningContainer c(program, "0x5");
  ASSERT_EQ(ReadBytes(c.output, word.size(), 15s), word);
  EXPECT_TRUE(WaitForText(ContainerLog(root), kBroadcastLine, 15s));
  const pid_t pid = c.pid;
  ASSERT_EQ(::kill(pid, SIGSEGV), 0);
  const int status = c.Wait(15s);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV);
  EXPECT_FALSE(ReadText(root.At("var/lib/Vantrel/TARNCORE/log/crash-" + std::to_string(pid) + ".txt")).empty());
}

}  // namespace

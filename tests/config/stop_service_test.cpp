// Stopping the service: SIGTERM to the parent, only when it is TarnCoreService (a renamed shell).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "config/ConfigPlatform.h"
#include "support/temp_root.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kChildMode = "TARN_CONFIG_STOP_CHILD";

// Runs `<name> -c '<this test binary> --gtest_filter=<child>; exit 7'`, so that
// the shell is the parent of the child test, and returns the shell's wait status.
int RunUnderShellNamed(const std::string& name) {
  tarn::test::TempRoot root;
  const std::string shell = root.At(name);
  fs::copy_file("/bin/sh", shell);
  fs::permissions(shell, fs::perms::owner_all);
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  const std::string filter = "--gtest_filter=ParentServiceControlTest.ChildAsksItsParentToStop";
  pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv(kChildMode, "1", 1);
    ::execl(shell.c_str(), name.c_str(), "-c", "\"$1\" \"$2\" >/dev/null 2>&1; exit 7", name.c_str(),
            self.c_str(), filter.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

TEST(ParentServiceControlTest, ChildAsksItsParentToStop) {
  if (!std::getenv(kChildMode)) GTEST_SKIP() << "runs only as the child of the test below";
  tarn::config::ParentServiceControl().StopTarnCoreService();
}

TEST(ParentServiceControlTest, OnlyAParentNamedTarnCoreServiceGetsSigterm) {
  int status = RunUnderShellNamed("TarnCoreService");
  ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);

  status = RunUnderShellNamed("TarnCoreServiceX");
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

}  // namespace

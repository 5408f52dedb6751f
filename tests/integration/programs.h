#pragma once
// Running the built programs under a TempRoot: an installation directory in
// the root, children started and reaped, log files read and waited on.
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/temp_root.h"

namespace tarn::test {

// Copies TarnCoreContainer and TarnCoreService from the build tree into
// <root>/opt/tarncore/, with a remote configuration that names no package
// (withConfig false leaves it out), and gives that folder, with a trailing '/'.
std::string InstallPrograms(const TempRoot& root, bool withConfig = true);

struct SpawnOptions {
  int stdinFd = -1;   // -1: /dev/null
  int stdoutFd = -1;  // -1: /dev/null
  // A descriptor of the test to pass on under the number inheritAs (-1: none).
  int inheritFd = -1;
  int inheritAs = -1;
  std::vector<std::string> extraEnv;  // "NAME=value"
};

// Starts argv[0] with argv; the child's environment is the test's plus extraEnv.
pid_t Spawn(const std::vector<std::string>& argv, const SpawnOptions& options = {});

// Waits for the child to end; false when it has not within the limit.
bool WaitExit(pid_t pid, std::chrono::milliseconds limit, int* status = nullptr);
// Kills and reaps a child still running (clean-up on failed tests).
void KillAndReap(pid_t pid);
// True while a process of that id exists (any process, not only children).
bool ProcessAlive(pid_t pid);

std::string ReadText(const std::string& path);
// Waits until the file holds text at least `times` times.
bool WaitForText(const std::string& path, const std::string& text, std::chrono::milliseconds limit,
                 int times = 1);
int CountText(const std::string& path, const std::string& text);

// The log files of the machine root.
std::string ContainerLog(const TempRoot& root);
std::string ServiceLog(const TempRoot& root);

}  // namespace tarn::test

#pragma once
// Running the built programs under a TempRoot: install, spawn, reap, read logs.
#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "support/temp_root.h"

namespace tarn::test {

// Copies both programs into <root>/opt/tarncore/ (returned, with a trailing '/'),
// with a remote configuration naming no package.
std::string InstallPrograms(const TempRoot& root);

struct SpawnOptions {
  int stdoutFd = -1;                   // -1: /dev/null, as standard input always is
  int inheritFd = -1, inheritAs = -1;  // a descriptor passed on under another number
  std::vector<std::string> extraEnv;   // "NAME=value", added to the test's environment
};
pid_t Spawn(const std::vector<std::string>& argv, const SpawnOptions& options = {});
// Starts argv as a child that gets exactly `pid`, which must be free, as the
// kernel lets a privileged caller choose it (a pid reused on purpose); -1
// when it won't. Returns once the child runs the program.
pid_t SpawnWithPid(pid_t pid, const std::vector<std::string>& argv);

// False when the child has not ended within the limit.
bool WaitExit(pid_t pid, std::chrono::milliseconds limit, int* status = nullptr);
void KillAndReap(pid_t pid);
// Any process of that id that has not ended (zombies have).
bool ProcessAlive(pid_t pid);

int CountText(const std::string& path, const std::string& text);
// Waits until the file holds text at least `times` times.
bool WaitForText(const std::string& path, const std::string& text, std::chrono::milliseconds limit,
                 int times = 1);
std::string ContainerLog(const TempRoot& root);
std::string ServiceLog(const TempRoot& root);

// The reference cloud (tools/cloud/tarncore-cloud) on a free port for the
// lifetime of the object. It serves what <root>/cloud/ holds at each request,
// logs each one to <root>/cloud/received/requests.log, and writes the address
// book that points at it to `addressBook`; `options` go to the program as
// they are ("--key", ...).
class Cloud {
 public:
  Cloud(const TempRoot& root, const std::string& addressBook, const std::vector<std::string>& options = {});
  ~Cloud();
  Cloud(const Cloud&) = delete;
  Cloud& operator=(const Cloud&) = delete;

  // Puts a file in the content folder ("remoteConfig.json", "update.json", ...).
  void Serve(std::string_view relative, std::string_view content) const;
  // "http://127.0.0.1:<port>"
  const std::string& Url() const { return url_; }

 private:
  const TempRoot& root_;
  pid_t pid_ = -1;
  std::string url_;
};

}  // namespace tarn::test

#include "programs.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "support/eventually.h"

extern char** environ;

namespace tarn::test {

std::string InstallPrograms(const TempRoot& root) {
  namespace fs = std::filesystem;
  const std::string dir = root.At("opt/tarncore/");
  root.WriteFile("opt/tarncore/config/remoteConfig.json",
                 "{ \"TimerPeriodTarnCoreUpdate\": \"86400000\", \"packageInfo\": [] }\n");
  for (const char* built : {"src/container/TarnCoreContainer", "tools/service/TarnCoreService"}) {
    const fs::path from = fs::path(BuildDir()) / built;
    fs::copy_file(from, fs::path(dir) / from.filename(), fs::copy_options::overwrite_existing);
  }
  return dir;
}

pid_t Spawn(const std::vector<std::string>& argv, const SpawnOptions& options) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  if (options.stdoutFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, options.stdoutFd, 1);
  } else {
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  }
  if (options.inheritFd >= 0) posix_spawn_file_actions_adddup2(&actions, options.inheritFd, options.inheritAs);
  posix_spawn_file_actions_addclosefrom_np(&actions, std::max(3, options.inheritAs + 1));
  std::vector<char*> envp, argp;
  for (char** e = environ; *e; ++e) envp.push_back(*e);
  for (const auto& e : options.extraEnv) envp.push_back(const_cast<char*>(e.c_str()));
  for (const auto& a : argv) argp.push_back(const_cast<char*>(a.c_str()));
  envp.push_back(nullptr);
  argp.push_back(nullptr);
  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("posix_spawn " + argv[0] + " failed");
  return pid;
}

pid_t SpawnWithPid(pid_t pid, const std::vector<std::string>& argv) {
  std::vector<char*> argp;
  for (const auto& a : argv) argp.push_back(const_cast<char*>(a.c_str()));
  argp.push_back(nullptr);
  // Closed by the exec: returns once the child runs the program.
  int started[2];
  if (::pipe2(started, O_CLOEXEC) != 0) return -1;
  clone_args args{};
  args.exit_signal = SIGCHLD;
  args.set_tid = reinterpret_cast<std::uint64_t>(&pid);
  args.set_tid_size = 1;
  const long child = ::syscall(SYS_clone3, &args, sizeof(args));
  if (child == 0) {
    ::execv(argp[0], argp.data());
    _exit(127);
  }
  ::close(started[1]);
  char ignored;
  while (child > 0 && ::read(started[0], &ignored, 1) < 0 && errno == EINTR) {
  }
  ::close(started[0]);
  return child > 0 ? static_cast<pid_t>(child) : -1;
}

bool WaitExit(pid_t pid, std::chrono::milliseconds limit, int* status) {
  int st = 0;
  pid_t r = 0;
  if (!Eventually([&] { return (r = ::waitpid(pid, &st, WNOHANG)) != 0; }, limit) || r != pid) return false;
  if (status) *status = st;
  return true;
}

void KillAndReap(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0 || ::kill(pid, 0) != 0) return false;
  const std::string text = ReadText("/proc/" + std::to_string(pid) + "/stat");
  const auto close = text.rfind(')');
  return close == std::string::npos || close + 2 >= text.size() || text[close + 2] != 'Z';
}

int CountText(const std::string& path, const std::string& text) {
  const std::string all = ReadText(path);
  int n = 0;
  for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++n;
  return n;
}

bool WaitForText(const std::string& path, const std::string& text, std::chrono::milliseconds limit,
                 int times) {
  return Eventually([&] { return CountText(path, text) >= times; }, limit);
}

Cloud::Cloud(const TempRoot& root, const std::string& addressBook, const std::vector<std::string>& options)
    : root_(root) {
  root.MakeDir("cloud");
  std::vector<std::string> argv = {SourceDir() + "/tools/cloud/tarncore-cloud", "--content", root.At("cloud"),
                                   "--address-book", addressBook};
  argv.insert(argv.end(), options.begin(), options.end());
  pid_ = Spawn(argv);
  // The book is written whole once the port is bound.
  std::smatch url;
  const std::string book = WaitForText(addressBook, "com.vantrel.evservice", std::chrono::seconds(30))
                               ? ReadText(addressBook) : std::string();
  if (!std::regex_search(book, url, std::regex("http://127\\.0\\.0\\.1:[0-9]+"))) {
    KillAndReap(pid_);
    throw std::runtime_error("tarncore-cloud did not start");
  }
  url_ = url.str();
}

Cloud::~Cloud() {
  ::kill(pid_, SIGTERM);
  if (!WaitExit(pid_, std::chrono::seconds(10))) KillAndReap(pid_);
}

void Cloud::Serve(std::string_view relative, std::string_view content) const {
  root_.WriteFile("cloud/" + std::string(relative), content);
}

std::string ContainerLog(const TempRoot& root) { return root.At("var/lib/Vantrel/TARNCORE/log/TarnCoreContainer.log"); }
std::string ServiceLog(const TempRoot& root) { return root.At("var/lib/Vantrel/TARNCORE/log/TarnCoreService.log"); }

}  // namespace tarn::test

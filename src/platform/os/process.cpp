#include "platform/os/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <fstream>

#include "platform/os/last_error.h"

extern char** environ;

namespace tarn::os {

namespace {

// Longest comm the kernel keeps (TASK_COMM_LEN - 1).
constexpr std::size_t kCommLength = 15;

bool SameIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(a[i])) !=
        std::toupper(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

std::string ExeName(const std::string& procDir) {
  char buf[4096];
  ssize_t n = ::readlink((procDir + "/exe").c_str(), buf, sizeof(buf) - 1);
  if (n <= 0) return {};
  std::string path(buf, static_cast<std::size_t>(n));
  const std::string deleted = " (deleted)";
  if (path.size() > deleted.size() &&
      path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0) {
    path.resize(path.size() - deleted.size());
  }
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Comm(const std::string& procDir) {
  std::ifstream in(procDir + "/comm");
  std::string comm;
  std::getline(in, comm);
  return comm;
}

// A process that ended but was not reaped yet (zombie) or is being torn down.
bool HasEnded(const std::string& procDir) {
  std::ifstream in(procDir + "/stat");
  std::string stat;
  std::getline(in, stat);
  auto close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return true;
  char state = stat[close + 2];
  return state == 'Z' || state == 'X' || state == 'x';
}

bool NameMatches(const std::string& name, const std::string& exe, const std::string& comm) {
  if (!exe.empty() && SameIgnoringCase(name, exe)) return true;
  if (comm.empty()) return false;
  if (SameIgnoringCase(name, comm)) return true;
  // Without a readable exe (another user's process) comm is all there is, cut
  // to its first 15 characters.
  return exe.empty() && name.size() > kCommLength && comm.size() == kCommLength &&
         SameIgnoringCase(name.substr(0, kCommLength), comm);
}

// Starts a program detached: an intermediate child spawns it and exits at once,
// so the program is reparented and never becomes our zombie.
bool SpawnDetached(const std::string& file, const std::vector<std::string>& args, bool searchPath) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  // Nothing of ours (service pipes, exit pipe, sockets) may live on in the program.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK |
                                      POSIX_SPAWN_SETSIGDEF);

  pid_t middle = ::fork();
  if (middle == 0) {
    pid_t pid;
    int rc = searchPath ? ::posix_spawnp(&pid, file.c_str(), &actions, &attr, argv.data(), environ)
                        : ::posix_spawn(&pid, file.c_str(), &actions, &attr, argv.data(), environ);
    ::_exit(rc > 0 && rc < 256 ? rc : (rc == 0 ? 0 : 255));
  }
  int forkError = errno;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (middle < 0) {
    SetLastError(static_cast<std::uint32_t>(forkError));
    return false;
  }
  int status = 0;
  while (::waitpid(middle, &status, 0) < 0) {
    if (errno != EINTR) {
      SetLastError(static_cast<std::uint32_t>(errno));
      return false;
    }
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    SetLastError(WIFEXITED(status) ? static_cast<std::uint32_t>(WEXITSTATUS(status)) : ECHILD);
    return false;
  }
  return true;
}

SystemProcesses g_systemProcesses;
std::atomic<Processes*> g_processes{nullptr};

}  // namespace

std::vector<std::string> SplitArguments(const std::string& arguments) {
  std::vector<std::string> parts;
  std::string current;
  for (char c : arguments) {
    if (c == ' ') {
      if (!current.empty()) parts.push_back(std::move(current));
      current.clear();
    } else {
      current += c;
    }
  }
  if (!current.empty()) parts.push_back(std::move(current));
  return parts;
}

std::vector<pid_t> SystemProcesses::FindByName(const std::string& name) {
  std::vector<pid_t> found;
  DIR* dir = ::opendir("/proc");
  if (!dir) {
    SetLastError(static_cast<std::uint32_t>(errno));
    return found;
  }
  while (dirent* entry = ::readdir(dir)) {
    const char* p = entry->d_name;
    if (*p == '\0' || !std::isdigit(static_cast<unsigned char>(*p))) continue;
    bool digits = true;
    for (const char* q = p; *q; ++q) digits = digits && std::isdigit(static_cast<unsigned char>(*q));
    if (!digits) continue;
    std::string procDir = std::string("/proc/") + p;
    if (NameMatches(name, ExeName(procDir), Comm(procDir)) && !HasEnded(procDir)) {
      found.push_back(static_cast<pid_t>(std::stol(p)));
    }
  }
  ::closedir(dir);
  return found;
}

bool SystemProcesses::StartProcess(const std::string& path, const std::string& arguments) {
  std::vector<std::string> args{path};
  for (auto& a : SplitArguments(arguments)) args.push_back(std::move(a));
  return SpawnDetached(path, args, false);
}

bool SystemProcesses::RemoveTreeDetached(const std::string& directory) {
  return SpawnDetached("rm", {"rm", "-rf", "--", directory}, true);
}

Processes& GetProcesses() {
  Processes* p = g_processes.load();
  return p ? *p : g_systemProcesses;
}

void SetProcessesForTesting(Processes* processes) { g_processes.store(processes); }

bool IsProcessRunning(const std::string& name) { return !GetProcesses().FindByName(name).empty(); }

}  // namespace tarn::os

#include "platform/os/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>

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

// The first line of a small /proc file, without a stream's set-up: a scan
// reads one or two of these for every process.
std::string FirstLine(const std::string& path) {
  char buf[1024];
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof(buf))) < 0 && errno == EINTR) {
  }
  ::close(fd);
  if (n <= 0) return {};
  std::string line(buf, static_cast<std::size_t>(n));
  const auto end = line.find('\n');
  if (end != std::string::npos) line.resize(end);
  return line;
}

std::string Comm(const std::string& procDir) { return FirstLine(procDir + "/comm"); }

// A process that ended but was not reaped yet (zombie) or is being torn down.
bool HasEnded(const std::string& procDir) {
  const std::string stat = FirstLine(procDir + "/stat");
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

// What the started program's process does between its fork and its exec. The
// forking process has threads, so only async-signal-safe calls happen there;
// everything it needs is made before the fork.
struct ExecPlan {
  int fd = -1;                  // fexecve this open file, or
  const char* file = nullptr;   // execvpe this name
  bool script = false;          // the file starts with "#!": its interpreter reads it as /dev/fd/3
  char* const* argv = nullptr;
  char* const* envp = nullptr;
  const StartAs* as = nullptr;
  const char* directory = nullptr;  // chdir here first, when given
  int passed = -1;                  // handed on as kPassedDescriptor, when given
};

[[noreturn]] void ReportAndExit(int errorPipe, int error) {
  (void)!::write(errorPipe, &error, sizeof(error));
  ::_exit(127);
}

[[noreturn]] void RunProgram(const ExecPlan& plan, int errorPipe) {
  ::setsid();
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  for (int signo = 1; signo < NSIG; ++signo) ::sigaction(signo, &byDefault, nullptr);

  // Out of the way of 0 to 5 first, then: standard handles on /dev/null, the
  // program at 3, the error pipe at 4 (closed by the exec), the passed
  // descriptor at 5, nothing else.
  const int program = plan.fd >= 0 ? ::fcntl(plan.fd, F_DUPFD_CLOEXEC, 10) : -1;
  const int passed = plan.passed >= 0 ? ::fcntl(plan.passed, F_DUPFD_CLOEXEC, 10) : -1;
  const int pipe = ::fcntl(errorPipe, F_DUPFD_CLOEXEC, 10);
  if (pipe < 0 || (plan.fd >= 0 && program < 0) || (plan.passed >= 0 && passed < 0)) ReportAndExit(errorPipe, errno);
  const int null = ::open("/dev/null", O_RDWR);
  if (null < 0) ReportAndExit(pipe, errno);
  for (int standard = 0; standard <= 2; ++standard) ::dup2(null, standard);
  if (program >= 0 && ::dup3(program, 3, plan.script ? 0 : O_CLOEXEC) < 0) ReportAndExit(pipe, errno);
  if (::dup3(pipe, 4, O_CLOEXEC) < 0) ReportAndExit(pipe, errno);
  if (passed >= 0 && ::dup2(passed, kPassedDescriptor) < 0) ReportAndExit(4, errno);
  ::close_range(passed >= 0 ? kPassedDescriptor + 1 : kPassedDescriptor, ~0U, 0);

  if (plan.as) {
    if (::setgroups(plan.as->groups.size(), plan.as->groups.data()) != 0 || ::setgid(plan.as->gid) != 0 ||
        ::setuid(plan.as->uid) != 0) {
      ReportAndExit(4, errno);
    }
  }
  if (plan.directory && ::chdir(plan.directory) != 0) ::chdir("/");
  if (program >= 0) {
    ::fexecve(3, plan.argv, plan.envp);
  } else {
    ::execvpe(plan.file, plan.argv, plan.envp);
  }
  ReportAndExit(4, errno);
}

// Starts a program detached: an intermediate child forks it and exits once it
// has exec'd (or failed to), so the program is reparented and never becomes
// our zombie, and its exec's errno comes back as the intermediate's status.
bool SpawnDetached(ExecPlan plan, const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  plan.argv = argv.data();
  std::vector<char*> envp;
  if (plan.as) {
    for (const auto& e : plan.as->environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    plan.envp = envp.data();
  } else {
    plan.envp = environ;
  }

  int errorPipe[2];
  if (::pipe2(errorPipe, O_CLOEXEC) != 0) {
    SetLastError(static_cast<std::uint32_t>(errno));
    return false;
  }
  const pid_t middle = ::fork();
  if (middle == 0) {
    const pid_t program = ::fork();
    if (program == 0) {
      ::close(errorPipe[0]);
      RunProgram(plan, errorPipe[1]);
    }
    const int forkError = errno;
    ::close(errorPipe[1]);
    if (program < 0) ::_exit(forkError);
    int error = 0;
    ssize_t n;
    while ((n = ::read(errorPipe[0], &error, sizeof(error))) < 0 && errno == EINTR) {
    }
    ::_exit(n != sizeof(error) ? 0 : (error > 0 && error < 256 ? error : 255));
  }
  const int forkError = errno;
  ::close(errorPipe[0]);
  ::close(errorPipe[1]);
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

bool StartsWithInterpreterLine(int fd) {
  char head[2];
  return ::pread(fd, head, sizeof(head), 0) == 2 && head[0] == '#' && head[1] == '!';
}

std::string HomeOf(const StartAs& as) {
  for (const auto& entry : as.environment) {
    if (entry.rfind("HOME=", 0) == 0) return entry.substr(5);
  }
  return "/";
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

std::vector<pid_t> Processes::FindByAnyName(const std::vector<std::string>& names) {
  std::vector<pid_t> found;
  for (const auto& name : names) {
    for (pid_t pid : FindByName(name)) {
      if (std::find(found.begin(), found.end(), pid) == found.end()) found.push_back(pid);
    }
  }
  return found;
}

std::vector<pid_t> SystemProcesses::FindByName(const std::string& name) { return FindByAnyName({name}); }

std::vector<pid_t> SystemProcesses::FindByAnyName(const std::vector<std::string>& names) {
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
    const std::string procDir = std::string("/proc/") + p;
    const std::string exe = ExeName(procDir), comm = Comm(procDir);
    const bool named = std::any_of(names.begin(), names.end(),
                                   [&](const std::string& name) { return NameMatches(name, exe, comm); });
    if (named && !HasEnded(procDir)) found.push_back(static_cast<pid_t>(std::stol(p)));
  }
  ::closedir(dir);
  return found;
}

bool SystemProcesses::StartFile(int fd, const std::string& path, const std::string& arguments,
                                const StartAs* as, int passed) {
  if (fd < 0) {
    SetLastError(EBADF);
    return false;
  }
  std::vector<std::string> args{path};
  for (auto& a : SplitArguments(arguments)) args.push_back(std::move(a));
  const std::string home = as ? HomeOf(*as) : std::string();
  ExecPlan plan;
  plan.fd = fd;
  plan.script = StartsWithInterpreterLine(fd);
  plan.as = as;
  plan.directory = as ? home.c_str() : nullptr;
  plan.passed = passed;
  return SpawnDetached(plan, args);
}

bool SystemProcesses::RemoveTreeDetached(const std::string& directory) {
  ExecPlan plan;
  plan.file = "rm";
  return SpawnDetached(plan, {"rm", "-rf", "--", directory});
}

Processes& GetProcesses() {
  Processes* p = g_processes.load();
  return p ? *p : g_systemProcesses;
}

void SetProcessesForTesting(Processes* processes) { g_processes.store(processes); }

bool IsProcessRunning(const std::string& name) { return !GetProcesses().FindByName(name).empty(); }

bool IsAnyProcessRunning(const std::vector<std::string>& names) {
  return !GetProcesses().FindByAnyName(names).empty();
}

}  // namespace tarn::os

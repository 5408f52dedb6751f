#include "platform/os/process_identity.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77  // Linux 6.5; older headers lack it
#endif

namespace tarn::os {
namespace {

thread_local CallerScope* t_caller = nullptr;

int PidfdOpen(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }

std::string ProcPath(pid_t pid, const char* leaf) { return "/proc/" + std::to_string(pid) + "/" + leaf; }

// Field 22 of /proc/<pid>/stat. The name in parentheses may hold anything,
// so the fields are counted from the last ')'.
std::uint64_t ReadStartTime(pid_t pid) {
  if (pid <= 0) return 0;
  const int fd = ::open(ProcPath(pid, "stat").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[1024];
  ssize_t n;
  do {
    n = ::read(fd, text, sizeof(text) - 1);
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  if (n <= 0) return 0;
  text[n] = '\0';
  const char* at = std::strrchr(text, ')');
  if (!at) return 0;
  for (int field = 2; field < 22 && at; ++field) at = std::strchr(at + 1, ' ');
  return at ? std::strtoull(at + 1, nullptr, 10) : 0;
}

}  // namespace

PeerProcess::PeerProcess(pid_t pid, int pidfd) : pid_(pid), pidfd_(pidfd) {
  startTime_ = ReadStartTime(pid);
  // Read by pid: it counts only if the process was still the one held then.
  if (!Alive()) startTime_ = 0;
}

PeerProcess::~PeerProcess() {
  if (pidfd_ >= 0) ::close(pidfd_);
}

std::shared_ptr<const PeerProcess> PeerProcess::OfSocket(int socketFd) {
  ucred cred{};
  socklen_t length = sizeof(cred);
  if (::getsockopt(socketFd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0 || cred.pid <= 0) return nullptr;
  // The kernel's own pidfd names the process that connected. Where it has
  // none, the pid is opened now, and a process that has ended since it
  // connected could have passed its pid on already.
  int pidfd = -1;
  length = sizeof(pidfd);
  if (::getsockopt(socketFd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) != 0) {
    pidfd = errno == ENOPROTOOPT ? PidfdOpen(cred.pid) : -1;
  }
  return std::shared_ptr<const PeerProcess>(new PeerProcess(cred.pid, pidfd));
}

std::shared_ptr<const PeerProcess> PeerProcess::OfPid(pid_t pid) {
  const int pidfd = pid > 0 ? PidfdOpen(pid) : -1;
  if (pidfd < 0) return nullptr;
  return std::shared_ptr<const PeerProcess>(new PeerProcess(pid, pidfd));
}

bool PeerProcess::Alive() const {
  if (pidfd_ < 0) return false;
  // A pidfd turns readable when its process ends.
  pollfd p{pidfd_, POLLIN, 0};
  int n;
  do {
    n = ::poll(&p, 1, 0);
  } while (n < 0 && errno == EINTR);
  return n == 0;
}

CallerScope::CallerScope(const PeerProcess& caller) : caller_(caller), outer_(t_caller) { t_caller = this; }

CallerScope::~CallerScope() {
  if (exeFd_ >= 0) ::close(exeFd_);
  t_caller = outer_;
}

CallerScope* CallerScope::Current() { return t_caller; }

int CallerScope::ExecutableFd() {
  if (!opened_) {
    opened_ = true;
    exeFd_ = ::open(ProcPath(caller_.Pid(), "exe").c_str(), O_RDONLY | O_CLOEXEC);
    if (exeFd_ >= 0 && !caller_.Alive()) {
      ::close(exeFd_);
      exeFd_ = -1;
    }
  }
  return exeFd_;
}

std::uint64_t ProcessStartTime(pid_t pid) {
  if (t_caller && t_caller->Caller().Pid() == pid) return t_caller->Caller().StartTime();
  return ReadStartTime(pid);
}

}  // namespace tarn::os

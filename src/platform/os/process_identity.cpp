#include "platform/os/process_identity.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <mutex>

namespace tarn::os {
namespace {

struct Pin {
  int fd;
  int refs;
};

std::mutex g_mutex;
std::map<pid_t, Pin>& Pins() {
  static auto* pins = new std::map<pid_t, Pin>;
  return *pins;
}

int PidfdOpen(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }
bool PidfdAlive(int fd) { return ::syscall(SYS_pidfd_send_signal, fd, 0, nullptr, 0) == 0; }

}  // namespace

bool PinProcess(pid_t pid) {
  if (pid <= 0) return false;
  std::lock_guard lock(g_mutex);
  auto it = Pins().find(pid);
  if (it != Pins().end() && PidfdAlive(it->second.fd)) {
    ++it->second.refs;
    return true;
  }
  int fd = PidfdOpen(pid);
  if (fd < 0) return false;
  if (it != Pins().end()) {
    // The old holder of this pid is gone: the new process takes the entry over.
    ::close(it->second.fd);
    it->second = Pin{fd, it->second.refs + 1};
  } else {
    Pins().emplace(pid, Pin{fd, 1});
  }
  return true;
}

void UnpinProcess(pid_t pid) {
  std::lock_guard lock(g_mutex);
  auto it = Pins().find(pid);
  if (it == Pins().end()) return;
  if (--it->second.refs <= 0) {
    ::close(it->second.fd);
    Pins().erase(it);
  }
}

bool ConfirmSameProcess(pid_t pid) {
  if (pid <= 0) return false;
  std::lock_guard lock(g_mutex);
  auto it = Pins().find(pid);
  if (it != Pins().end()) return PidfdAlive(it->second.fd);
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace tarn::os

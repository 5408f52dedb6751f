#pragma once
// Who a process is beyond its pid, which the kernel hands out again once the
// process has ended: a pidfd names that one process for as long as it is held,
// and its start time tells it apart from a later process with the same pid
// without asking the kernel again.
#include <sys/types.h>

#include <cstdint>
#include <memory>

namespace tarn::os {

class PeerProcess {
 public:
  // The process at the other end of a connected Unix socket, as it was when
  // it connected; null when the kernel names none.
  static std::shared_ptr<const PeerProcess> OfSocket(int socketFd);
  // The process that has pid now; null when there is none.
  static std::shared_ptr<const PeerProcess> OfPid(pid_t pid);
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  pid_t Pid() const { return pid_; }
  // Clock ticks after boot at which it started; 0 when it had ended before
  // that could be read.
  std::uint64_t StartTime() const { return startTime_; }
  // False once it has ended (a zombie has ended), or when no pidfd could be
  // had for it.
  bool Alive() const;

 private:
  PeerProcess(pid_t pid, int pidfd);
  pid_t pid_;
  int pidfd_;
  std::uint64_t startTime_ = 0;
};

// The process on whose behalf this thread runs a request. The IPC server sets
// it while it delivers a frame, so that a check of that pid looks at the
// process that sent the frame, and at nothing that took its pid since.
class CallerScope {
 public:
  explicit CallerScope(const PeerProcess& caller);
  ~CallerScope();
  CallerScope(const CallerScope&) = delete;
  CallerScope& operator=(const CallerScope&) = delete;

  // This thread's innermost scope, or null.
  static CallerScope* Current();
  const PeerProcess& Caller() const { return caller_; }
  // The caller's /proc/<pid>/exe, opened on first use and kept for the rest
  // of the scope, so that every check of this request reads the same file;
  // -1 when the caller has ended (after the open too: then the pid may have
  // named another process when it was opened).
  int ExecutableFd();

 private:
  const PeerProcess& caller_;
  CallerScope* outer_;
  int exeFd_ = -1;
  bool opened_ = false;
};

// The start time of the process that has pid now: this thread's caller's, at
// no cost, when pid is the caller's; else read from /proc. 0 when there is no
// such process.
std::uint64_t ProcessStartTime(pid_t pid);

}  // namespace tarn::os

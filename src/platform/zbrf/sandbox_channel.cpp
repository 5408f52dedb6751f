#include "platform/zbrf/sandbox_channel.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/zbrf/framework_log.h"
#include "platform/zbrf/sandbox_frame.h"

extern char** environ;

namespace tarn::zbrf {

namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Waits for `events` on fd until the deadline; false on time-out, hang-up
// without the event, or error.
bool WaitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, events, 0};
    int n = ::poll(&p, 1, RemainingMs(deadline));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (p.revents & events) return true;
    return false;  // POLLERR / POLLHUP / POLLNVAL without data
  }
}

// The socket is nearly always ready, so the send comes first and a wait only
// when it would block.
bool SendAll(int fd, const std::string& bytes, Clock::time_point deadline) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EAGAIN) {
      if (!WaitFor(fd, POLLOUT, deadline)) return false;
    } else if (n >= 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

class SandboxObject : public ZObject {
 public:
  SandboxObject(pid_t pid, SandboxChannel channel, std::chrono::milliseconds timeout, std::string name)
      : pid_(pid), fd_(channel.callFd), noteFd_(channel.noteFd), timeout_(timeout), name_(std::move(name)) {
    // Notes wait in the socket until the child gathers them; room for more of
    // them keeps a request thread from waiting for the child's next round.
    const int room = 1 << 20;
    ::setsockopt(noteFd_, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
  }

  ~SandboxObject() override {
    {
      std::lock_guard lock(mutex_);
      End("released");
    }
    ::close(noteFd_);
  }

  bool Transact(uint32_t code, const std::shared_ptr<ZParcel>& data, const std::shared_ptr<ZParcel>& reply,
                uint32_t flags) override {
    static const std::string kEmpty;
    const std::string& payload = data ? data->Data() : kEmpty;
    if (payload.size() > frame::kMaxPayload) {
      ZBRF_LOG(Error, "sandbox " << name_ << " request too large: " << payload.size());
      return false;
    }
    std::string request = frame::EncodeRequest(code, flags & ~frame::kTransportFlags, payload);
    const bool oneWay = (flags & kFlagOneWay) != 0;
    if (oneWay && request.size() <= frame::kWholeNote) return Note(request);
    // A larger note could be split in the note socket; it goes as a call,
    // which is answered once the service has taken it.
    if (oneWay) frame::AddFlags(request, frame::kAnswerAnyway);
    std::lock_guard lock(mutex_);
    if (fd_ < 0) return false;
    // Taken under the lock, so that whichever call goes first after a note
    // carries the mark.
    if (notesAhead_.exchange(false)) frame::AddFlags(request, frame::kNotesAhead);
    // Anything readable before we ask is unsolicited output or a hang-up:
    // the stream can't be trusted any more.
    pollfd p{fd_, POLLIN, 0};
    if (!unasked_.empty() || ::poll(&p, 1, 0) != 0) {
      End("sent unasked data or hung up");
      return false;
    }
    const auto deadline = Clock::now() + timeout_;
    if (!SendAll(fd_, request, deadline)) {
      End("did not take the request");
      return false;
    }
    std::string got;
    if (!Receive(frame::kReplyHead, got, deadline)) {
      End("did not answer in time");
      return false;
    }
    const auto* head = reinterpret_cast<const unsigned char*>(got.data());
    const uint8_t ok = head[0];
    const uint32_t length = frame::GetU32(head + 1);
    if (ok > 1 || length > frame::kMaxPayload) {
      End("answered with a malformed frame");
      return false;
    }
    if (!Receive(frame::kReplyHead + length, got, deadline)) {
      End("sent a short answer");
      return false;
    }
    // Bytes beyond the reply were never asked for: they spoil the next call.
    unasked_ = got.substr(frame::kReplyHead + length);
    if (oneWay) return true;
    if (!ok) return false;
    if (reply) reply->SetData(got.substr(frame::kReplyHead, length));
    return true;
  }

  pid_t Pid() const { return pid_.load(); }

 private:
  // A one-way request is done once it is in the child's note socket. The
  // child gathers notes every half millisecond, and before a call marked as
  // coming after notes, so a caller's note is served before that caller's
  // next call. Writing one wakes nobody, and calls don't queue behind it.
  // Being small, each note leaves in one piece, so writers need no lock.
  bool Note(const std::string& request) {
    if (ended_.load(std::memory_order_relaxed)) return false;
    // EPIPE here is a child that died: its end of the socket is closed.
    if (SendAll(noteFd_, request, Clock::now() + timeout_)) {
      notesAhead_.store(true);
      return true;
    }
    std::lock_guard lock(mutex_);
    End("did not take the request");
    return false;
  }

  // Reads until `got` holds at least `size` bytes; the first read usually
  // brings the whole reply. It waits in poll, not in recv: a thread asleep in
  // recv is also woken when the child takes the request off the socket.
  bool Receive(std::size_t size, std::string& got, Clock::time_point deadline) {
    char chunk[16 * 1024];
    while (got.size() < size) {
      if (!WaitFor(fd_, POLLIN, deadline)) return false;
      ssize_t n = ::recv(fd_, chunk, sizeof(chunk), MSG_DONTWAIT);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n <= 0) return false;  // 0: the child closed its end
      got.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
  }

  // Ends the child for good; every later Transact fails at once. Called with
  // mutex_ held. The note socket is shut, not closed, so that a note being
  // written meanwhile fails instead of landing on a reused descriptor.
  void End(const char* why) {
    ended_.store(true, std::memory_order_relaxed);
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
      ::shutdown(noteFd_, SHUT_RDWR);
      if (std::strcmp(why, "released") != 0) ZBRF_LOG(Error, "sandbox " << name_ << " " << why);
    }
    pid_t pid = pid_.exchange(0);
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
  }

  std::mutex mutex_;  // the call socket, one call at a time
  std::atomic<pid_t> pid_;
  std::atomic<bool> ended_{false};
  std::atomic<bool> notesAhead_{false};  // a note was written since the last call
  int fd_;
  const int noteFd_;
  std::chrono::milliseconds timeout_;
  std::string name_;
  std::string unasked_;  // read past the last reply
};

// Moves fd to a number of at least 10, close-on-exec, so that the child's
// dup2 onto 0, 1 and 3 can't clobber it.
int HighFd(int fd) {
  if (fd < 0) return -1;
  int high = ::fcntl(fd, F_DUPFD_CLOEXEC, 10);
  ::close(fd);
  return high;
}

}  // namespace

std::shared_ptr<ZObject> StartSandbox(int execFd, const std::string& name, const std::string& method,
                                      std::chrono::milliseconds timeout) {
  int calls[2], notes[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, calls) != 0) {
    ZBRF_LOG(Error, "sandbox " << name << " socketpair failed, errno " << errno);
    return nullptr;
  }
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, notes) != 0) {
    ZBRF_LOG(Error, "sandbox " << name << " socketpair failed, errno " << errno);
    for (int fd : calls) ::close(fd);
    return nullptr;
  }
  const SandboxChannel host{calls[0], notes[0]};
  const int childCalls = HighFd(calls[1]);
  const int childNotes = HighFd(notes[1]);
  const int devNull = HighFd(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const int program = ::fcntl(execFd, F_DUPFD_CLOEXEC, 10);
  auto closeAll = [&] {
    for (int fd : {childCalls, childNotes, devNull, program})
      if (fd >= 0) ::close(fd);
  };
  auto closeHost = [&] {
    ::close(host.callFd);
    ::close(host.noteFd);
  };
  if (childCalls < 0 || childNotes < 0 || devNull < 0 || program < 0) {
    ZBRF_LOG(Error, "sandbox " << name << " descriptors failed, errno " << errno);
    closeAll();
    closeHost();
    return nullptr;
  }

  // Everything the child touches is made before fork: after it, only
  // async-signal-safe calls until the exec.
  std::string argv0 = name, argv1 = method;
  char* argv[] = {argv0.data(), argv1.data(), nullptr};
  sigset_t none;
  sigemptyset(&none);

  pid_t pid = ::fork();
  if (pid == 0) {
    if (::dup2(devNull, 0) < 0 || ::dup2(devNull, 1) < 0 || ::dup2(childCalls, frame::kChannelFd) < 0 ||
        ::dup2(childNotes, frame::kNoteFd) < 0)
      _exit(126);
    // Leaked descriptors of the host (not marked close-on-exec) don't reach the
    // service; `program` is close-on-exec already and is still usable by fexecve.
    ::syscall(SYS_close_range, frame::kNoteFd + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) _exit(126);
    ::fexecve(program, argv, environ);
    _exit(127);
  }
  const int forkErrno = errno;
  closeAll();
  if (pid < 0) {
    ZBRF_LOG(Error, "sandbox " << name << " fork failed, errno " << forkErrno);
    closeHost();
    return nullptr;
  }
  ZBRF_LOG(Info, "sandbox " << name << " started, pid " << pid);
  return SandboxOverChannel(host, pid, name, timeout);
}

std::shared_ptr<ZObject> SandboxOverChannel(SandboxChannel channel, pid_t pid, const std::string& name,
                                            std::chrono::milliseconds timeout) {
  if (timeout > kMaxSandboxTimeout || timeout.count() <= 0) timeout = kMaxSandboxTimeout;
  return std::make_shared<SandboxObject>(pid, channel, timeout, name);
}

pid_t SandboxPid(const ZObject& object) {
  auto* sandbox = dynamic_cast<const SandboxObject*>(&object);
  return sandbox ? sandbox->Pid() : 0;
}

}  // namespace tarn::zbrf

#include "platform/zbrf/sandbox_host.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <poll.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "platform/zbrf/sandbox_frame.h"

namespace tarn::zbrf {

namespace {

// Access rights newer than the installed kernel headers.
constexpr uint64_t kLandlockTruncate = 1ULL << 14;
constexpr uint64_t kLandlockIoctlDev = 1ULL << 15;

uint64_t HandledFsAccess(int abi) {
  uint64_t all = (1ULL << 13) - 1;  // EXECUTE .. MAKE_SYM
  if (abi >= 2) all |= LANDLOCK_ACCESS_FS_REFER;
  if (abi >= 3) all |= kLandlockTruncate;
  if (abi >= 5) all |= kLandlockIoctlDev;
  return all;
}

bool ApplyLandlock(const std::vector<std::string>& readableDirs, std::string& error) {
  long abi = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (abi < 1) {
    error = "landlock unavailable";
    return false;
  }
  landlock_ruleset_attr attr{};
  attr.handled_access_fs = HandledFsAccess(static_cast<int>(abi));
  int ruleset = static_cast<int>(::syscall(SYS_landlock_create_ruleset, &attr, sizeof(attr), 0));
  if (ruleset < 0) {
    error = std::string("landlock ruleset: ") + std::strerror(errno);
    return false;
  }
  for (const auto& dir : readableDirs) {
    int dirFd = ::open(dir.c_str(), O_PATH | O_CLOEXEC | O_DIRECTORY);
    if (dirFd < 0) continue;  // nothing there to read yet
    landlock_path_beneath_attr beneath{};
    beneath.allowed_access = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
    beneath.parent_fd = dirFd;
    ::syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0);
    ::close(dirFd);
  }
  bool ok = ::syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
  if (!ok) error = std::string("landlock restrict: ") + std::strerror(errno);
  ::close(ruleset);
  return ok;
}

bool ApplySeccomp(std::string& error) {
  scmp_filter_ctx ctx = seccomp_init(SCMP_ACT_ERRNO(EPERM));
  if (!ctx) {
    error = "seccomp_init failed";
    return false;
  }
  int rc = 0;
  auto allow = [&](int nr) {
    if (rc == 0) rc = seccomp_rule_add(ctx, SCMP_ACT_ALLOW, nr, 0);
  };
  auto allowIf = [&](int nr, scmp_arg_cmp cmp) {
    if (rc == 0) rc = seccomp_rule_add(ctx, SCMP_ACT_ALLOW, nr, 1, cmp);
  };
  auto kill = [&](int nr) {
    if (rc == 0) rc = seccomp_rule_add(ctx, SCMP_ACT_KILL_PROCESS, nr, 0);
  };

  // Serving: requests in, replies out on the channel; diagnostics on stderr.
  for (int nr : {SCMP_SYS(read), SCMP_SYS(readv), SCMP_SYS(pread64), SCMP_SYS(recvfrom), SCMP_SYS(close),
                 SCMP_SYS(lseek), SCMP_SYS(poll), SCMP_SYS(ppoll)})
    allow(nr);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // Sanitizer runtimes test whether memory is readable by writing it into a
  // pipe of their own; in such builds pipes and writes to them are allowed.
  allow(SCMP_SYS(pipe));
  allow(SCMP_SYS(pipe2));
  allow(SCMP_SYS(write));
  allow(SCMP_SYS(writev));
#else
  for (int fd : {STDERR_FILENO, frame::kChannelFd}) {
    allowIf(SCMP_SYS(write), SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(fd)));
    allowIf(SCMP_SYS(writev), SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(fd)));
  }
#endif
  // Reading configuration: opens without any write intent (where files may be
  // read at all is Landlock's part), and metadata.
  const scmp_datum_t writeIntent = O_ACCMODE | O_CREAT | O_TRUNC | O_APPEND | O_PATH;
  allowIf(SCMP_SYS(openat), SCMP_A2(SCMP_CMP_MASKED_EQ, writeIntent, 0));
  for (int nr : {SCMP_SYS(fstat), SCMP_SYS(newfstatat), SCMP_SYS(statx)}) allow(nr);
  // Memory, never executable.
  for (int nr : {SCMP_SYS(brk), SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(madvise)}) allow(nr);
  allowIf(SCMP_SYS(mmap), SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0));
  allowIf(SCMP_SYS(mprotect), SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0));
  // Runtime: locks, clocks, signals, the end.
  for (int nr : {SCMP_SYS(futex), SCMP_SYS(sched_yield), SCMP_SYS(getpid), SCMP_SYS(gettid),
                 SCMP_SYS(clock_gettime), SCMP_SYS(clock_nanosleep), SCMP_SYS(nanosleep),
                 SCMP_SYS(gettimeofday), SCMP_SYS(getrandom), SCMP_SYS(rt_sigreturn),
                 SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigaction), SCMP_SYS(sigaltstack),
                 SCMP_SYS(restart_syscall), SCMP_SYS(tgkill), SCMP_SYS(exit), SCMP_SYS(exit_group)})
    allow(nr);
  // Never: running other code, watching other processes, making processes.
  for (int nr : {SCMP_SYS(execve), SCMP_SYS(execveat), SCMP_SYS(ptrace), SCMP_SYS(process_vm_readv),
                 SCMP_SYS(process_vm_writev), SCMP_SYS(fork), SCMP_SYS(vfork), SCMP_SYS(clone),
                 SCMP_SYS(clone3)})
    kill(nr);

  if (rc == 0) rc = seccomp_load(ctx);
  seccomp_release(ctx);
  if (rc != 0) {
    error = std::string("seccomp: ") + std::strerror(-rc);
    return false;
  }
  return true;
}

bool WriteFull(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Once notes flow, they are read this long after the last round rather than
// at each arrival, so that writing one wakes nobody. The host's socket holds
// thousands of them; a round finds a dozen or so, served in a burst short
// enough not to hold up the request road on a busy processor.
constexpr timespec kNoteGather{0, 500'000};

enum class Got { kSome, kNone, kEnd };

// Appends what the socket holds now, without waiting; a read that fills the
// chunk may have left more behind.
Got ReadAvailable(int fd, std::string& in) {
  char chunk[16 * 1024];
  for (Got got = Got::kNone;;) {
    ssize_t n = ::recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return got;
    if (n <= 0) return Got::kEnd;
    in.append(chunk, static_cast<std::size_t>(n));
    if (static_cast<std::size_t>(n) < sizeof(chunk)) return Got::kSome;
    got = Got::kSome;
  }
}

// Serves the whole frames at the front of `in` in order and drops them;
// one-way requests get no reply unless they ask for one. Before a call marked
// as coming after notes, `notesFirst` serves those. False when a frame is
// malformed, a reply can't be written or the notes end.
bool ServeFrames(ZObject& service, std::string& in, const std::function<bool()>& notesFirst) {
  std::size_t at = 0;
  bool fine = true;
  while (in.size() - at >= frame::kRequestHead) {
    const auto* head = reinterpret_cast<const unsigned char*>(in.data() + at);
    const uint32_t code = frame::GetU32(head);
    const uint32_t flags = frame::GetU32(head + 4);
    const uint32_t length = frame::GetU32(head + 8);
    if (length > frame::kMaxPayload) {
      fine = false;
      break;
    }
    if (in.size() - at - frame::kRequestHead < length) break;
    if ((flags & frame::kNotesAhead) && notesFirst && !notesFirst()) {
      fine = false;
      break;
    }
    auto data = ZParcel::FromBytes(in.substr(at + frame::kRequestHead, length));
    at += frame::kRequestHead + length;
    auto reply = ZParcel::CreateInstance();
    bool ok = false;
    try {
      ok = service.OnTransact(code, data, reply, flags & ~frame::kTransportFlags);
    } catch (...) {
      ok = false;
    }
    if ((flags & kFlagOneWay) && !(flags & frame::kAnswerAnyway)) continue;
    if (!WriteFull(frame::kChannelFd, frame::EncodeReply(ok, ok ? reply->Data() : std::string()))) {
      fine = false;
      break;
    }
  }
  in.erase(0, at);
  return fine;
}

// Calls are answered as they come. Notes wake the service only when it is
// idle; while they flow they are gathered every half millisecond, and before
// a call that the host marked as coming after notes. Waiting is in poll,
// never in read: a reader asleep in read is also woken when the host takes a
// reply off the socket.
void Serve(ZObject& service) {
  std::string calls, notes;
  bool gathering = false;
  const std::function<bool()> serveNotes = [&] {
    const Got got = ReadAvailable(frame::kNoteFd, notes);
    if (got == Got::kSome) gathering = true;
    return got != Got::kEnd && ServeFrames(service, notes, nullptr);
  };
  for (;;) {
    pollfd ready[2] = {{frame::kChannelFd, POLLIN, 0}, {gathering ? -1 : frame::kNoteFd, POLLIN, 0}};
    const int n = ::ppoll(ready, 2, gathering ? &kNoteGather : nullptr, nullptr);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (n == 0 || ready[1].revents) {
      gathering = false;  // until this round finds notes
      if (!serveNotes()) return;
    }
    if (ready[0].revents) {
      if (ReadAvailable(frame::kChannelFd, calls) == Got::kEnd || !ServeFrames(service, calls, serveNotes)) return;
    }
  }
}

void Say(const std::string& text) {
  std::string line = text + "\n";
  ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  (void)ignored;
}

}  // namespace

ConfinementResult ConfineProcess(const std::vector<std::string>& readableDirs) {
  ConfinementResult result;
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    result.error = std::string("no_new_privs: ") + std::strerror(errno);
    return result;
  }
  std::string landlockError;
  result.landlock = ApplyLandlock(readableDirs, landlockError);
  result.seccomp = ApplySeccomp(result.error);
  if (result.seccomp && !result.landlock) result.error = landlockError;
  return result;
}

int SandboxMain(int argc, char** argv, const SandboxSpec& spec) {
  struct stat st {};
  auto isSocket = [&st](int fd) { return ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode); };
  if (!isSocket(frame::kChannelFd) || !isSocket(frame::kNoteFd) || argc < 2) {
    Say(std::string(argc > 0 ? argv[0] : "sandbox") + ": runs only as a service of the TarnCore host");
    return 2;
  }
  std::shared_ptr<ZObject> service;
  for (const auto& [name, factory] : spec.methods) {
    if (name == argv[1] && factory && factory(&service) && service) break;
    service.reset();
  }
  if (!service) {
    Say(std::string("unknown or failing method ") + argv[1]);
    return 4;
  }
  // The host's request threads wait for the answers that matter; a service
  // woken by a one-way note should not push them off their processor, only
  // run when one is free or their turn ends.
  const sched_param batch{};
  ::sched_setscheduler(0, SCHED_BATCH, &batch);
  ConfinementResult confined = ConfineProcess(spec.readableDirs);
  if (!confined.seccomp) {
    Say("confinement failed: " + confined.error);
    return 3;
  }

  Serve(*service);
  // Past the filter, exit handlers (leak checkers among them) could only fail.
  _exit(0);
}

}  // namespace tarn::zbrf

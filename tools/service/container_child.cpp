#include "container_child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "container/pipe_message.h"

extern char** environ;

namespace tarn::service {
namespace {

// The exit descriptor's number in the container.
constexpr int kExitFdInChild = 3;
constexpr const char* kNoGnutlsInit = "GNUTLS_NO_IMPLICIT_INIT=";

void CloseFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

ContainerChild::~ContainerChild() { CloseAll(); }

bool ContainerChild::Start(const std::string& path) {
  CloseAll();
  int in[2] = {-1, -1};
  int out[2] = {-1, -1};
  int ex[2] = {-1, -1};
  auto fail = [&](int err) {
    for (int* p : {in, out, ex}) {
      CloseFd(p[0]);
      CloseFd(p[1]);
    }
    errno = err;
    return false;
  };
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(ex, O_CLOEXEC) != 0) {
    return fail(errno);
  }
  // dup2 onto the same number would keep close-on-exec; move it out of the way.
  if (ex[0] == kExitFdInChild) {
    int moved = ::fcntl(ex[0], F_DUPFD_CLOEXEC, kExitFdInChild + 1);
    if (moved < 0) return fail(errno);
    CloseFd(ex[0]);
    ex[0] = moved;
  }

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ex[0], kExitFdInChild);
  // Nothing else of the service (its log, its control FIFO) reaches the container.
  posix_spawn_file_actions_addclosefrom_np(&actions, kExitFdInChild + 1);

  // The service blocks its signals and ignores SIGPIPE; the container starts clean,
  // in a process group of its own so a Ctrl-C at the service's terminal reaches
  // only the service, which then ends the container through the exit pipe.
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int s : {SIGPIPE, SIGTERM, SIGINT, SIGCHLD, SIGHUP}) sigaddset(&defaults, s);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                      POSIX_SPAWN_SETPGROUP);

  std::string handle = container::FormatExitHandle(kExitFdInChild);
  std::vector<char*> argv = {const_cast<char*>(path.c_str()), handle.data(), nullptr};
  // libcurl brings GnuTLS along (through librtmp and libldap) though its TLS
  // is OpenSSL's; GnuTLS's set-up at load time would cost the container about
  // 0.8 MiB for nothing. The container takes the variable out again at once.
  std::vector<char*> envp;
  bool told = false;
  for (char** e = environ; *e; ++e) {
    told = told || std::strncmp(*e, kNoGnutlsInit, std::strlen(kNoGnutlsInit)) == 0;
    envp.push_back(*e);
  }
  std::string noInit = std::string(kNoGnutlsInit) + "1";
  if (!told) envp.push_back(noInit.data());
  envp.push_back(nullptr);
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, path.c_str(), &actions, &attr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) return fail(rc);

  CloseFd(in[0]);
  CloseFd(out[1]);
  CloseFd(ex[0]);
  input_ = in[1];
  output_ = out[0];
  exitWrite_ = ex[1];
  ::fcntl(input_, F_SETFL, ::fcntl(input_, F_GETFL) | O_NONBLOCK);
  ::fcntl(output_, F_SETFL, ::fcntl(output_, F_GETFL) | O_NONBLOCK);
  pid_ = pid;
  startedAt_ = std::chrono::steady_clock::now();
  return true;
}

bool ContainerChild::Send(std::string_view bytes) {
  if (input_ < 0) {
    errno = EPIPE;
    return false;
  }
  // Messages of up to PIPE_BUF bytes go in whole or not at all.
  for (;;) {
    ssize_t n = ::write(input_, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (static_cast<std::size_t>(n) != bytes.size()) {
      errno = EIO;
      return false;
    }
    return true;
  }
}

int ContainerChild::PendingInput() const {
  int pending = 0;
  // FIONREAD answers for the pipe, from either end.
  if (input_ < 0 || ::ioctl(input_, FIONREAD, &pending) != 0) return 0;
  return pending;
}

ssize_t ContainerChild::Receive(char* buf, std::size_t size) {
  if (output_ < 0) return 0;
  for (;;) {
    ssize_t n = ::read(output_, buf, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno == EAGAIN ? -1 : (CloseFd(output_), 0);
    if (n == 0) CloseFd(output_);
    return n;
  }
}

void ContainerChild::CloseExitPipe() { CloseFd(exitWrite_); }

void ContainerChild::Kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
}

void ContainerChild::Ended() {
  pid_ = -1;
  CloseAll();
}

void ContainerChild::CloseAll() {
  CloseFd(input_);
  CloseFd(output_);
  CloseFd(exitWrite_);
}

}  // namespace tarn::service

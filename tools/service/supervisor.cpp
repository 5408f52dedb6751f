#include "supervisor.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <vector>

#include "container/pipe_message.h"
#include "platform/os/places.h"
#include "service_log.h"

namespace tarn::service {
namespace {

constexpr const char* kContainerName = "TarnCoreContainer";
// Messages held back while the container has not read the one before.
constexpr std::size_t kMaxQueued = 64;
// How often a held-back message looks whether the pipe is empty.
constexpr int kQueuePollMs = 10;

sigset_t HandledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGCHLD);
  return set;
}

std::string DescribeStatus(int status) {
  if (WIFEXITED(status)) return "exit code " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

bool ParseMs(const char* text, std::chrono::milliseconds& out) {
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < 0) return false;
  out = std::chrono::milliseconds(v);
  return true;
}

}  // namespace

const char* SupervisorUsage() {
  return "Usage: TarnCoreService [--container PATH] [--control PATH] [--stop-grace-ms N]\n"
         "                       [--no-session-monitor]\n"
         "Keeps TarnCoreContainer running under the machine root TARNCORE_ROOT (default /).\n"
         "Session events can be injected as lines written to the control FIFO\n"
         "(default <root>/run/tarncore/TarnCoreService.ctl), e.g. NotifyWinEvent5EventId2.\n";
}

bool ParseSupervisorOptions(int argc, char** argv, SupervisorOptions& options,
                            std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        error = std::string(name) + " needs a value";
        return nullptr;
      }
      return argv[++i];
    };
    if (arg == "--container") {
      const char* v = value("--container");
      if (!v) return false;
      options.containerPath = v;
    } else if (arg == "--control") {
      const char* v = value("--control");
      if (!v) return false;
      options.controlPath = v;
    } else if (arg == "--stop-grace-ms") {
      const char* v = value("--stop-grace-ms");
      if (!v) return false;
      if (!ParseMs(v, options.stopGrace)) {
        error = "--stop-grace-ms needs a number of milliseconds";
        return false;
      }
    } else if (arg == "--no-session-monitor") {
      options.watchSessions = false;
    } else {
      error = "unknown argument: " + arg;
      return false;
    }
  }
  return true;
}

Supervisor::Supervisor(SupervisorOptions options) : options_(std::move(options)) {
  if (options_.containerPath.empty()) {
    options_.containerPath = os::InstallDirectory() + kContainerName;
  }
  if (options_.controlPath.empty()) options_.controlPath = ControlChannel::DefaultPath();
}

void Supervisor::BlockSignals() {
  sigset_t set = HandledSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A container that is gone must not take the service with it on a write.
  std::signal(SIGPIPE, SIG_IGN);
}

int Supervisor::Run() {
  sigset_t set = HandledSignals();
  signalFd_ = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd_ < 0) {
    SLOGE("Supervisor::Run", "signalfd failed error: " << errno);
    return 1;
  }
  SLOGI("Supervisor::Run", "TarnCoreService start, container " << options_.containerPath);

  if (!control_.Open(options_.controlPath)) {
    SLOGE("Supervisor::Run", "control FIFO " << options_.controlPath << " failed error: " << errno);
  }
  if (options_.watchSessions) {
    int error = 0;
    sessionsOpen_ = sessions_.Open(error);
    if (!sessionsOpen_) {
      SLOGW("Supervisor::Run", "logind session monitor unavailable error: " << -error);
    }
    locksOpen_ = locks_.Open(error);
    if (!locksOpen_) {
      SLOGW("Supervisor::Run", "session lock signals unavailable error: " << -error);
    }
  }

  StartContainer();
  while (stopping_ ? child_.running() : true) {
    std::vector<pollfd> fds;
    fds.push_back({signalFd_, POLLIN, 0});
    const int outIndex = child_.output() >= 0 ? static_cast<int>(fds.size()) : -1;
    if (outIndex >= 0) fds.push_back({child_.output(), POLLIN, 0});
    const int ctlIndex = control_.fd() >= 0 ? static_cast<int>(fds.size()) : -1;
    if (ctlIndex >= 0) fds.push_back({control_.fd(), POLLIN, 0});
    const int sesIndex = sessionsOpen_ ? static_cast<int>(fds.size()) : -1;
    if (sesIndex >= 0) fds.push_back({sessions_.fd(), sessions_.events(), 0});
    const int lockIndex = locksOpen_ ? static_cast<int>(fds.size()) : -1;
    if (lockIndex >= 0) fds.push_back({locks_.fd(), locks_.events(), 0});

    int n = ::poll(fds.data(), fds.size(), PollTimeoutMs());
    if (n < 0 && errno != EINTR) {
      SLOGE("Supervisor::Run", "poll failed error: " << errno);
      break;
    }
    if (n > 0) {
      if (fds[0].revents & POLLIN) {
        signalfd_siginfo info{};
        while (::read(signalFd_, &info, sizeof(info)) == sizeof(info)) {
          OnSignal(static_cast<int>(info.ssi_signo));
        }
      }
      if (outIndex >= 0 && fds[outIndex].revents) OnContainerOutput();
      if (ctlIndex >= 0 && (fds[ctlIndex].revents & POLLIN)) {
        for (const auto& line : control_.ReadLines()) {
          SLOGI("Supervisor::Run", "control message " << line);
          Forward(line);
        }
      }
      std::vector<SessionEvent> events;
      if (sesIndex >= 0 && fds[sesIndex].revents) events = sessions_.Changes();
      if (lockIndex >= 0 && fds[lockIndex].revents) {
        for (const auto& ev : locks_.Changes()) events.push_back(ev);
      }
      for (const auto& ev : events) Forward(container::NotifyWinEventText(ev.type, ev.session));
    }
    OnTimers();
    if (stopping_ && !child_.running()) break;
  }

  control_.Close();
  ::close(signalFd_);
  signalFd_ = -1;
  SLOGI("Supervisor::Run", "TarnCoreService end.");
  return 0;
}

void Supervisor::StartContainer() {
  restartAt_.reset();
  if (child_.Start(options_.containerPath)) {
    SLOGI("Supervisor::StartContainer", "TarnCoreContainer started pid " << child_.pid());
    return;
  }
  const int err = errno;
  const auto wait = backoff_.Next(std::chrono::milliseconds(0));
  SLOGE("Supervisor::StartContainer", "TarnCoreContainer start failed error: "
                                          << err << " (" << std::strerror(err) << "), retry in "
                                          << wait.count() << " ms");
  restartAt_ = Clock::now() + wait;
}

void Supervisor::OnSignal(int signo) {
  if (signo == SIGCHLD) {
    ReapChildren();
    return;
  }
  SLOGI("Supervisor::OnSignal", "signal " << signo << " received");
  BeginStop();
}

void Supervisor::BeginStop() {
  if (stopping_) return;
  stopping_ = true;
  restartAt_.reset();
  sd_notify(0, "STOPPING=1");
  if (!child_.running()) return;
  SLOGI("Supervisor::BeginStop", "closing exit pipe of TarnCoreContainer pid " << child_.pid());
  child_.CloseExitPipe();
  killAt_ = Clock::now() + options_.stopGrace;
}

void Supervisor::ReapChildren() {
  for (;;) {
    int status = 0;
    pid_t pid = ::waitpid(-1, &status, WNOHANG);
    if (pid <= 0) return;
    if (pid != child_.pid()) continue;
    // Whatever it wrote last is still worth reading.
    if (child_.output() >= 0) OnContainerOutput();
    const auto ranFor = std::chrono::duration_cast<std::chrono::milliseconds>(
        Clock::now() - child_.startedAt());
    child_.Ended();
    killAt_.reset();
    if (!outbound_.empty()) {
      SLOGW("Supervisor::ReapChildren", "dropped " << outbound_.size() << " messages");
      outbound_.clear();
    }
    if (stopping_) {
      SLOGI("Supervisor::ReapChildren", "TarnCoreContainer ended, " << DescribeStatus(status));
      continue;
    }
    const auto wait = backoff_.Next(ranFor);
    SLOGW("Supervisor::ReapChildren", "TarnCoreContainer died, " << DescribeStatus(status)
                                          << ", after " << ranFor.count() << " ms; restart in "
                                          << wait.count() << " ms");
    restartAt_ = Clock::now() + wait;
  }
}

void Supervisor::OnContainerOutput() {
  char buf[4096];
  for (;;) {
    ssize_t n = child_.Receive(buf, sizeof(buf));
    if (n <= 0) return;
    const std::string text = container::FromPipeBytes(std::string_view(buf, static_cast<std::size_t>(n)));
    const auto status = container::FindWorkStatus(text);
    if (!status) {
      SLOGW("Supervisor::OnContainerOutput", "unknown message from TarnCoreContainer: " << text);
      continue;
    }
    SLOGI("Supervisor::OnContainerOutput", "TarnCoreContainer " << container::WorkStatusText(*status));
    if (*status == 1 && !readySent_) {
      readySent_ = true;
      sd_notify(0, "READY=1");
      SLOGI("Supervisor::OnContainerOutput", "service ready");
    }
  }
}

void Supervisor::Forward(const std::string& message) {
  if (!child_.running()) {
    SLOGW("Supervisor::Forward", "no TarnCoreContainer for " << message);
    return;
  }
  if (outbound_.size() >= kMaxQueued) {
    SLOGE("Supervisor::Forward", "TarnCoreContainer does not read, dropped " << message);
    return;
  }
  outbound_.push_back(message);
  SendQueued();
}

void Supervisor::SendQueued() {
  while (!outbound_.empty() && child_.running() && child_.PendingInput() == 0) {
    const std::string message = std::move(outbound_.front());
    outbound_.pop_front();
    if (child_.Send(container::ToPipeBytes(message))) {
      SLOGI("Supervisor::SendQueued", "sent " << message);
    } else {
      SLOGE("Supervisor::SendQueued", "send of " << message << " failed error: " << errno);
    }
  }
}

int Supervisor::PollTimeoutMs() const {
  std::optional<Clock::time_point> next;
  for (const auto& t : {restartAt_, killAt_}) {
    if (t && (!next || *t < *next)) next = t;
  }
  int queueWait = outbound_.empty() ? -1 : kQueuePollMs;
  if (!next) return queueWait;
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(*next - Clock::now()).count();
  int timerWait = ms < 0 ? 0 : static_cast<int>(ms) + 1;
  return queueWait < 0 ? timerWait : std::min(queueWait, timerWait);
}

void Supervisor::OnTimers() {
  SendQueued();
  const auto now = Clock::now();
  if (restartAt_ && now >= *restartAt_ && !stopping_) StartContainer();
  if (killAt_ && now >= *killAt_ && child_.running()) {
    SLOGW("Supervisor::OnTimers", "TarnCoreContainer pid " << child_.pid() << " still running after "
                                      << options_.stopGrace.count() << " ms, killing it");
    killAt_.reset();
    child_.Kill();
    // Reaped through SIGCHLD like any other end.
  }
}

}  // namespace tarn::service

#pragma once
// TarnCoreService's work: keep one TarnCoreContainer running, pass session
// events to it, tell systemd when it works, and end it when the service ends.
//
// - Start: the container next to the service (or --container), see ContainerChild.
// - Ready: "NotifyWorkStatus1" from the container sends READY=1 to systemd once.
// - Session events: logind's session changes and its Lock and Unlock
//   signals (on the system bus), and every line of the control
//   FIFO (see ControlChannel), go to the container as UTF-16LE messages. The
//   container takes one message per read and has no framing, so a message is
//   written only once the one before it has been read; until then it waits
//   in a short queue.
// - A container that died is started again after RestartBackoff's wait.
// - SIGTERM or SIGINT: close the exit pipe, give the container the grace
//   period to end, and only then kill it.
#include <chrono>
#include <csignal>
#include <deque>
#include <optional>
#include <string>

#include "container_child.h"
#include "control_channel.h"
#include "restart_backoff.h"
#include "session_monitor.h"

namespace tarn::service {

struct SupervisorOptions {
  std::string containerPath;  // empty: TarnCoreContainer in the service's own folder
  std::string controlPath;    // empty: ControlChannel::DefaultPath()
  std::chrono::milliseconds stopGrace{5000};
  bool watchSessions = true;  // logind and its signals
};

// Parses the command line; false with a message in `error` on bad usage.
bool ParseSupervisorOptions(int argc, char** argv, SupervisorOptions& options, std::string& error);
const char* SupervisorUsage();

class Supervisor {
 public:
  explicit Supervisor(SupervisorOptions options);

  // The signals the service handles itself; block them in every thread first
  // (before any thread starts), the supervisor then reads them from a signalfd.
  static void BlockSignals();

  // Runs until SIGTERM or SIGINT and the container's end. 0, or 1 when the
  // service could not set itself up.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  void StartContainer();
  void OnSignal(int signo);
  void ReapChildren();
  void OnContainerOutput();
  void Forward(const std::string& message);
  void SendQueued();
  void BeginStop();
  int PollTimeoutMs() const;
  void OnTimers();

  SupervisorOptions options_;
  ContainerChild child_;
  ControlChannel control_;
  SessionMonitor sessions_;
  bool sessionsOpen_ = false;
  SessionLockMonitor locks_;
  bool locksOpen_ = false;
  RestartBackoff backoff_;
  int signalFd_ = -1;
  bool stopping_ = false;
  bool readySent_ = false;
  std::optional<Clock::time_point> restartAt_;
  std::optional<Clock::time_point> killAt_;
  std::deque<std::string> outbound_;
};

}  // namespace tarn::service

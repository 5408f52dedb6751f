#pragma once
// Session changes from systemd-logind, as the container's session events:
// a session that appears is a logon (5), one that goes away a logoff (6).
// Only numeric session ids fit the message; others ("c1") are left out.
#include <cstdint>
#include <set>
#include <string>
#include <vector>

struct sd_login_monitor;

namespace tarn::service {

struct SessionEvent {
  std::uint32_t type;
  std::uint32_t session;
  bool operator==(const SessionEvent&) const = default;
};

// The events that turn the session set `before` into `after`: logoffs first,
// then logons, each in the order of the ids' text.
std::vector<SessionEvent> SessionChanges(const std::set<std::string>& before,
                                         const std::set<std::string>& after);

class SessionMonitor {
 public:
  SessionMonitor() = default;
  ~SessionMonitor();
  SessionMonitor(const SessionMonitor&) = delete;
  SessionMonitor& operator=(const SessionMonitor&) = delete;

  // Starts watching; false (with a negative errno in `error`) where logind is not there.
  bool Open(int& error);
  int fd() const;
  short events() const;
  // After the descriptor was ready: the events since the last look.
  std::vector<SessionEvent> Changes();

 private:
  std::set<std::string> CurrentSessions() const;

  sd_login_monitor* monitor_ = nullptr;
  std::set<std::string> known_;
};

}  // namespace tarn::service

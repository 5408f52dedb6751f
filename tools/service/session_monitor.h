#pragma once
// Session changes from systemd-logind, as the container's session events:
// a session that appears is a logon (5), one that goes away a logoff (6), and
// logind's Lock and Unlock signals of a session are lock (7) and unlock (8).
// Only numeric session ids fit the message; others ("c1") are left out.
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

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

// The session id in a logind session object's path
// ("/org/freedesktop/login1/session/_32" is session "2").
std::optional<std::uint32_t> SessionFromObjectPath(const char* path);

// logind's Lock and Unlock signals, from the system bus (DBUS_SYSTEM_BUS_ADDRESS
// when set).
class SessionLockMonitor {
 public:
  SessionLockMonitor() = default;
  ~SessionLockMonitor();
  SessionLockMonitor(const SessionLockMonitor&) = delete;
  SessionLockMonitor& operator=(const SessionLockMonitor&) = delete;

  // Connects and subscribes; false (with a negative errno in `error`) where
  // there is no system bus.
  bool Open(int& error);
  int fd() const;
  short events() const;
  // After the descriptor was ready: the lock and unlock events that came.
  std::vector<SessionEvent> Changes();

 private:
  static int OnSignal(sd_bus_message* message, void* self, sd_bus_error* error);

  sd_bus* bus_ = nullptr;
  sd_bus_slot* match_ = nullptr;
  std::vector<SessionEvent> arrived_;
};

}  // namespace tarn::service

#include "session_monitor.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-login.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "container/pipe_message.h"

namespace tarn::service {
namespace {

bool NumericId(const std::string& id, std::uint32_t& value) {
  if (id.empty() || id.size() > 9) return false;
  std::uint32_t v = 0;
  for (char c : id) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<std::uint32_t>(c - '0');
  }
  value = v;
  return true;
}

}  // namespace

std::vector<SessionEvent> SessionChanges(const std::set<std::string>& before,
                                         const std::set<std::string>& after) {
  std::vector<SessionEvent> events;
  std::uint32_t id = 0;
  for (const auto& s : before) {
    if (!after.count(s) && NumericId(s, id)) events.push_back({container::kSessionLogoff, id});
  }
  for (const auto& s : after) {
    if (!before.count(s) && NumericId(s, id)) events.push_back({container::kSessionLogon, id});
  }
  return events;
}

SessionMonitor::~SessionMonitor() {
  if (monitor_) sd_login_monitor_unref(monitor_);
}

bool SessionMonitor::Open(int& error) {
  error = sd_login_monitor_new("session", &monitor_);
  if (error < 0) {
    monitor_ = nullptr;
    return false;
  }
  known_ = CurrentSessions();
  return true;
}

int SessionMonitor::fd() const { return monitor_ ? sd_login_monitor_get_fd(monitor_) : -1; }

short SessionMonitor::events() const {
  if (!monitor_) return 0;
  int ev = sd_login_monitor_get_events(monitor_);
  return ev < 0 ? 0 : static_cast<short>(ev);
}

std::vector<SessionEvent> SessionMonitor::Changes() {
  if (!monitor_) return {};
  sd_login_monitor_flush(monitor_);
  auto now = CurrentSessions();
  auto events = SessionChanges(known_, now);
  known_ = std::move(now);
  return events;
}

std::set<std::string> SessionMonitor::CurrentSessions() const {
  std::set<std::string> sessions;
  char** list = nullptr;
  int n = sd_get_sessions(&list);
  for (int i = 0; i < n && list; ++i) {
    sessions.insert(list[i]);
    std::free(list[i]);
  }
  std::free(list);
  return sessions;
}

std::optional<std::uint32_t> SessionFromObjectPath(const char* path) {
  char* id = nullptr;
  if (!path || sd_bus_path_decode(path, "/org/freedesktop/login1/session", &id) <= 0 || !id) return std::nullopt;
  std::uint32_t session = 0;
  const bool numeric = NumericId(id, session);
  std::free(id);
  return numeric ? std::optional<std::uint32_t>(session) : std::nullopt;
}

SessionLockMonitor::~SessionLockMonitor() {
  sd_bus_slot_unref(match_);
  sd_bus_flush_close_unref(bus_);
}

bool SessionLockMonitor::Open(int& error) {
  error = sd_bus_open_system(&bus_);
  if (error >= 0) {
    error = sd_bus_add_match(bus_, &match_,
                             "type='signal',sender='org.freedesktop.login1',"
                             "interface='org.freedesktop.login1.Session'",
                             &SessionLockMonitor::OnSignal, this);
  }
  if (error < 0) {
    sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
    return false;
  }
  Changes();  // what came in while the match was set up
  return true;
}

int SessionLockMonitor::fd() const { return bus_ ? sd_bus_get_fd(bus_) : -1; }

short SessionLockMonitor::events() const {
  if (!bus_) return 0;
  const int ev = sd_bus_get_events(bus_);
  return ev < 0 ? 0 : static_cast<short>(ev);
}

std::vector<SessionEvent> SessionLockMonitor::Changes() {
  if (bus_) {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
  }
  return std::exchange(arrived_, {});
}

int SessionLockMonitor::OnSignal(sd_bus_message* message, void* self, sd_bus_error*) {
  const char* member = sd_bus_message_get_member(message);
  const bool lock = member && std::strcmp(member, "Lock") == 0;
  const bool unlock = member && std::strcmp(member, "Unlock") == 0;
  const auto session = SessionFromObjectPath(sd_bus_message_get_path(message));
  if ((lock || unlock) && session) {
    static_cast<SessionLockMonitor*>(self)->arrived_.push_back(
        {lock ? container::kSessionLock : container::kSessionUnlock, *session});
  }
  return 0;
}

}  // namespace tarn::service

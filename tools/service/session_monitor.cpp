#include "session_monitor.h"

#include <systemd/sd-login.h>

#include <cstdlib>

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

}  // namespace tarn::service

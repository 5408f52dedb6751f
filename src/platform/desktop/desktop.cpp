#include "platform/desktop/desktop.h"

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "platform/log/tarn_log.h"
#include "platform/os/last_error.h"
#include "platform/os/places.h"

extern char** environ;

namespace tarn::desktop {

namespace {

#define DLOG(level, where, ...) TARN_LOG(::tarn::log::Level::level, "desktop", where, __VA_ARGS__)

constexpr const char* kSeat = "seat0";
constexpr const char* kPath = "PATH=/usr/local/bin:/usr/bin:/bin";
// What the container hands on of its own environment to a program in another
// user's session: its machine root and log level, and GTK's renderer and
// accessibility choices where a machine's operator set them (an Xvfb has no GL
// and no accessibility bus).
constexpr const char* kPassedOn[] = {"TARNCORE_ROOT=", "SPDLOG_LEVEL=", "GSK_RENDERER=", "GTK_A11Y="};

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

bool HasDisplay(const std::vector<std::string>& environment) {
  for (const auto& entry : environment) {
    for (const char* name : {"DISPLAY=", "WAYLAND_DISPLAY="}) {
      if (entry.rfind(name, 0) == 0 && entry.size() > std::char_traits<char>::length(name)) return true;
    }
  }
  return false;
}

std::vector<std::string> OwnEnvironment() {
  std::vector<std::string> entries;
  for (char** e = environ; e && *e; ++e) entries.emplace_back(*e);
  return entries;
}

// The machine's language, as the locale files that logins read give it.
std::string SystemLanguage() {
  for (const char* file : {"etc/locale.conf", "etc/default/locale"}) {
    std::ifstream in(tarn::os::MachinePath(file));
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("LANG=", 0) != 0) continue;
      std::string value = line.substr(5);
      if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
      }
      return value;
    }
  }
  return {};
}

// The compositor's socket in the session's runtime folder ("wayland-0").
std::string WaylandSocket(const std::string& runtimeDir) {
  std::string found;
  if (DIR* dir = ::opendir(runtimeDir.c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name.rfind("wayland-", 0) == 0 && !name.ends_with(".lock") && (found.empty() || name < found)) found = name;
    }
    ::closedir(dir);
  }
  return found;
}

LogindSessions g_logind;
std::atomic<Sessions*> g_sessions{nullptr};

}  // namespace

std::optional<SessionUser> LogindSessions::ActiveGraphicalSession() {
  char* rawSession = nullptr;
  uid_t uid = 0;
  if (sd_seat_get_active(kSeat, &rawSession, &uid) < 0 || !rawSession) return std::nullopt;
  const CString session(rawSession);
  char* rawType = nullptr;
  if (sd_session_get_type(session.get(), &rawType) < 0 || !rawType) return std::nullopt;
  const std::string type = CString(rawType).get();
  if (type != "x11" && type != "wayland" && type != "mir") return std::nullopt;

  passwd entry {};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
  SessionUser person;
  person.session = session.get();
  tarn::os::StartAs& user = person.user;
  user.uid = uid;
  user.gid = entry.pw_gid;
  int count = 32;
  user.groups.resize(static_cast<std::size_t>(count));
  if (::getgrouplist(entry.pw_name, entry.pw_gid, user.groups.data(), &count) < 0) {
    user.groups.resize(static_cast<std::size_t>(count));
    ::getgrouplist(entry.pw_name, entry.pw_gid, user.groups.data(), &count);
  }
  user.groups.resize(static_cast<std::size_t>(count));

  const std::string runtimeDir = "/run/user/" + std::to_string(uid);
  char* rawDisplay = nullptr;
  if (sd_session_get_display(session.get(), &rawDisplay) >= 0 && rawDisplay) {
    user.environment.push_back(std::string("DISPLAY=") + CString(rawDisplay).get());
    // The X server lets in who shows its cookie: where the display manager
    // keeps it (GDM), else where X logins leave it.
    for (const std::string& cookie : {runtimeDir + "/gdm/Xauthority", std::string(entry.pw_dir) + "/.Xauthority"}) {
      if (::access(cookie.c_str(), F_OK) == 0) {
        user.environment.push_back("XAUTHORITY=" + cookie);
        break;
      }
    }
  }
  if (type == "wayland") {
    const std::string socket = WaylandSocket(runtimeDir);
    if (!socket.empty()) user.environment.push_back("WAYLAND_DISPLAY=" + socket);
  }
  user.environment.push_back("XDG_RUNTIME_DIR=" + runtimeDir);
  user.environment.push_back("DBUS_SESSION_BUS_ADDRESS=unix:path=" + runtimeDir + "/bus");
  user.environment.push_back(std::string("HOME=") + entry.pw_dir);
  user.environment.push_back(std::string("USER=") + entry.pw_name);
  const std::string lang = SystemLanguage();
  if (!lang.empty()) user.environment.push_back("LANG=" + lang);
  return person;
}

Sessions& GetSessions() {
  Sessions* s = g_sessions.load();
  return s ? *s : g_logind;
}

void SetSessionsForTesting(Sessions* sessions) { g_sessions.store(sessions); }

DesktopStart ChooseDesktopStart(uid_t self, const std::optional<SessionUser>& session,
                                const std::vector<std::string>& ownEnvironment) {
  DesktopStart start;
  if (self != 0) {
    if (session || HasDisplay(ownEnvironment)) start.target = DesktopStart::Target::kSelf;
    return start;
  }
  if (!session) {
    if (HasDisplay(ownEnvironment)) start.target = DesktopStart::Target::kSelf;
    return start;
  }
  // Never root on a person's screen.
  if (session->user.uid == 0) return start;
  start.target = DesktopStart::Target::kSessionUser;
  start.as = session->user;
  start.as.environment.push_back(kPath);
  for (const auto& entry : ownEnvironment) {
    for (const char* prefix : kPassedOn) {
      if (entry.rfind(prefix, 0) == 0) start.as.environment.push_back(entry);
    }
  }
  return start;
}

namespace {

bool StartWithPrivilegedPart(const tarn::os::PinnedFile& program, const std::string& arguments,
                             tarn::os::StartAs as, const tarn::os::PinnedFile& part) {
  int channel[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0) {
    tarn::os::SetLastError(static_cast<std::uint32_t>(errno));
    return false;
  }
  const std::string descriptor = std::to_string(tarn::os::kPassedDescriptor);
  const bool partStarted =
      tarn::os::GetProcesses().StartFile(part.fd(), part.path(), "--channel " + descriptor, nullptr, channel[1]);
  ::close(channel[1]);
  if (partStarted) {
    as.environment.push_back(std::string(kPrivilegedChannelVariable) + "=" + descriptor);
  } else {
    DLOG(Warn, "StartOnDesktop", part.path() << " did not start, error " << tarn::os::GetLastError());
  }
  // Once the program has its end, the part learns of the program's exit, or
  // of a start that failed, as the end of the channel.
  const bool started = tarn::os::GetProcesses().StartFile(program.fd(), program.path(), arguments, &as,
                                                          partStarted ? channel[0] : -1);
  const std::uint32_t error = tarn::os::GetLastError();
  ::close(channel[0]);
  tarn::os::SetLastError(error);
  return started;
}

}  // namespace

bool StartOnDesktop(const tarn::os::PinnedFile& program, const std::string& arguments,
                    const tarn::os::PinnedFile* privilegedPart) {
  if (program.fd() < 0) {
    tarn::os::SetLastError(static_cast<std::uint32_t>(program.error()));
    return false;
  }
  const int fd = program.fd();
  const std::string& path = program.path();
  const std::optional<SessionUser> session = GetSessions().ActiveGraphicalSession();
  const DesktopStart start = ChooseDesktopStart(::geteuid(), session, OwnEnvironment());
  switch (start.target) {
    case DesktopStart::Target::kNobody:
      DLOG(Warn, "StartOnDesktop", "no one at the desktop for " << path);
      tarn::os::SetLastError(ENXIO);
      return false;
    case DesktopStart::Target::kSelf:
      return tarn::os::GetProcesses().StartFile(fd, path, arguments, nullptr, -1);
    case DesktopStart::Target::kSessionUser:
      DLOG(Info, "StartOnDesktop",
           path << " in session " << session->session << " as uid " << start.as.uid);
      if (privilegedPart && privilegedPart->fd() >= 0) {
        return StartWithPrivilegedPart(program, arguments, start.as, *privilegedPart);
      }
      return tarn::os::GetProcesses().StartFile(fd, path, arguments, &start.as, -1);
  }
  return false;
}

}  // namespace tarn::desktop

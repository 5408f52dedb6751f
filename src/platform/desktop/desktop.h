#pragma once
// Starting the platform's desktop programs (the privacy notice, the update
// dialogs) on the screen of the person at the machine.
//
// A container running as root starts them in the active graphical session of
// seat0, as that session's user (uid, gid, supplementary groups) with that
// session's environment, and never as root on a person's screen. With no such
// session, a container whose own environment names a display (a test or demo
// machine under Xvfb) starts them there as itself. A container that is not
// root starts them as itself with its own environment. Anything else means no
// one is at the desktop, and the start fails.
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/os/pinned_file.h"
#include "platform/os/process.h"

namespace tarn::desktop {

// The user of a graphical session, as logind and the user database know them.
struct SessionUser {
  std::string session;  // logind's session id
  // Its uid, gid and supplementary groups, and its environment: DISPLAY (and
  // XAUTHORITY where its cookie is) and/or WAYLAND_DISPLAY, XDG_RUNTIME_DIR,
  // DBUS_SESSION_BUS_ADDRESS, HOME, USER, LANG, as "NAME=value".
  tarn::os::StartAs user;
};

class Sessions {
 public:
  virtual ~Sessions() = default;
  // The active graphical (x11, wayland, mir) session of seat0; none when
  // logind knows none or isn't there.
  virtual std::optional<SessionUser> ActiveGraphicalSession() = 0;
};

// sd-login, /etc/passwd and the session's runtime folder.
class LogindSessions : public Sessions {
 public:
  std::optional<SessionUser> ActiveGraphicalSession() override;
};

// The process-wide instance; tests install their own (nullptr restores logind).
Sessions& GetSessions();
void SetSessionsForTesting(Sessions* sessions);

// Whom a desktop program runs as.
struct DesktopStart {
  enum class Target { kNobody, kSelf, kSessionUser } target = Target::kNobody;
  tarn::os::StartAs as;  // for kSessionUser
};

// The rules above. self: the container's effective uid; ownEnvironment: its
// "NAME=value" entries. The session user's environment also gets a fixed PATH
// and the container's TARNCORE_ROOT and SPDLOG_LEVEL, so the program talks to
// the same machine root, and its GSK_RENDERER and GTK_A11Y where set.
DesktopStart ChooseDesktopStart(uid_t self, const std::optional<SessionUser>& session,
                                const std::vector<std::string>& ownEnvironment);

// Names, in the environment of a program started in another user's session,
// the descriptor joining it to its privileged part.
inline constexpr const char* kPrivilegedChannelVariable = "TARNCORE_PRIVILEGED_CHANNEL";

// Starts the program held open (already verified) with its path as argv[0]
// and the arguments, as ChooseDesktopStart decides for this process. False
// with the last error set when the file didn't open (its errno), no one is at
// the desktop (ENXIO) or the start failed (its errno).
//
// A program that runs as the person may still need this process's rights for
// a step (the update UI's install). Given a privileged part (held open and
// verified too), a program started in another user's session gets it beside
// itself: the part runs as this process with "--channel <n>", the program
// finds the other end of their socket through kPrivilegedChannelVariable, and
// the part does only what it is asked for there. A part that doesn't start
// leaves the program on its own.
bool StartOnDesktop(const tarn::os::PinnedFile& program, const std::string& arguments,
                    const tarn::os::PinnedFile* privilegedPart = nullptr);

}  // namespace tarn::desktop

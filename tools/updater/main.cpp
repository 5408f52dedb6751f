// TarnCoreUpdater: the privileged part of the update UI.
//
// The update UI runs as the person at the desktop, who can neither write the
// platform's download folder nor start its installer. When the container
// starts "Upgrade" in another user's session it starts this program beside it,
// with its own rights, joined to the UI by a socket: the UI asks for the
// upgrade there and learns whether the installer started. Nothing else is
// taken from the UI, and the package must still pass the update library's
// SHA-256 and maker-signature tests.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "platform/appupdate/upgrade_channel.h"
#include "platform/log/tarn_log.h"

namespace {

constexpr int kExitStarted = 0;
constexpr int kExitNotStarted = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoRequest = 3;
// How long the UI has to show itself and ask.
constexpr int kRequestWaitMs = 5 * 60 * 1000;

#define ULOG(level, ...) TARN_LOG(::tarn::log::Level::level, "updater", "TarnCoreUpdater::main", __VA_ARGS__)

}  // namespace

int main(int argc, char** argv) {
  char* end = nullptr;
  const long channel = argc == 3 && std::strcmp(argv[1], "--channel") == 0 ? std::strtol(argv[2], &end, 10) : -1;
  if (channel < 0 || !end || *end != '\0') {
    std::cerr << "Usage: TarnCoreUpdater --channel FD\n"
                 "Runs the upgrade that the update UI asks for on the socket FD.\n";
    return kExitUsage;
  }
  tarn::log::Open("TarnCoreUpdater", 2, 1);
  ULOG(Info, "TarnCoreUpdater begin");
  UpgradeAPI updater;
  const auto served = tarn::appupdate::ServeUpgrade(static_cast<int>(channel), updater, kRequestWaitMs);
  switch (served) {
    case tarn::appupdate::Served::kNoRequest:
      ULOG(Info, "TarnCoreUpdater end, no request");
      return kExitNoRequest;
    case tarn::appupdate::Served::kStarted:
      ULOG(Info, "TarnCoreUpdater end, installer started");
      return kExitStarted;
    case tarn::appupdate::Served::kNotStarted:
      ULOG(Warn, "TarnCoreUpdater end, installer not started");
      return kExitNotStarted;
  }
  return kExitNotStarted;
}

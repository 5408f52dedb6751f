#pragma once
// The update UI and its privileged part speak over a socket that the container
// made for the two of them: the UI, running as the person at the desktop,
// writes "upgrade\n"; the part, running with the container's rights, runs the
// silent upgrade and answers "1\n" when the installer started, "0\n" when not.
// That one request is all the part takes.
#include "platform/appupdate/upgrade_api.h"

namespace tarn::appupdate {

// The UI's side: asks and waits for the outcome, however long the download
// takes. False when the installer didn't start or the part went away.
bool RequestUpgrade(int channel);

enum class Served { kNoRequest, kStarted, kNotStarted };

// The part's side: waits up to waitMs for the request. Anything else on the
// channel, its end, or no request in time, and nothing is run.
Served ServeUpgrade(int channel, UpgradeAPI& updater, int waitMs);

}  // namespace tarn::appupdate

#pragma once
// Pins a peer process's identity by pidfd, so that a later look at
// /proc/<pid>/exe can be confirmed to still be about the same process
// (pids are reused).
#include <sys/types.h>

namespace tarn::os {

// Takes a pidfd for pid and remembers it (reference counted per pid: each
// Pin needs one Unpin). Returns false when the process is already gone.
bool PinProcess(pid_t pid);
void UnpinProcess(pid_t pid);

// True when pid names a live process and, if it was pinned, still the pinned one.
// Call after opening /proc/<pid>/... to confirm what was opened.
bool ConfirmSameProcess(pid_t pid);

}  // namespace tarn::os

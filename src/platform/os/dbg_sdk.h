#pragma once
// The crash handler and the UCS log path, the two closed libraries main calls
// into at start and end.
#include <sys/types.h>

#include <string>

// Installs the crash handler: a fatal signal (SEGV, BUS, FPE, ILL, ABRT, SYS)
// writes the signal and a backtrace to
// <common app data>/Vantrel/TARNCORE/log/crash-<pid>.txt, and the process then
// dies of that signal as it would have. True when installed.
bool DbgSdkInit();
// Puts back the handlers that were there before DbgSdkInit.
void DbgSdkUnInit();

namespace TarnCoreUcs {
// Remembers the folder of the UCS log; nothing more.
void InitUcsKmsLog(const std::string& path);
std::string UcsKmsLogPath();
}  // namespace TarnCoreUcs

namespace tarn::os {
// Where the crash handler writes for a process.
std::string CrashFilePath(pid_t pid);
}  // namespace tarn::os

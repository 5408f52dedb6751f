#pragma once
// The container process: main's steps and svcThreadFun's start-up order.
#include <cstdint>
#include <string>

// main's work. commandLine is what follows the program's name: the exit
// handle's number in hexadecimal. Returns main's result, or does not return
// on a system where the process ends itself (see MustTerminateAtExit).
int TarnCoreContainerMain(const std::wstring& commandLine);

// Thread function of "svcThreadFun": the start-up order. Returns 1.
std::uint32_t svcThreadFun(void* param);

// What raising CAP_SYS_PTRACE came to: the step that failed, with its errno.
struct PtraceRaise {
  enum Step { kRaised, kReadFailed, kSetFailed } step = kRaised;
  int error = 0;
};
// Makes sure the process may look at other processes' executables
// (/proc/<pid>/exe), which caller verification needs. See the definition.
// Logs nothing: main runs it before any thread exists.
PtraceRaise RaisePtraceCapability();
// Reports the raise in its place among main's steps, with the lines of a
// token that could not be adjusted. True when it was raised.
bool SetPrivilege(const PtraceRaise& raise);

void InitDataDirectories();
void LogDirHandle(std::string path);

// Folder of the running executable, with a trailing '/'.
void GetInstallDirectory(std::string& directory);
// The common application data folder; empty on failure.
void GetCommonAppDataPath(std::string& path);

// Windows' processor architecture code of this machine (x86_64 9, i386 0,
// aarch64 12, ia64 6; 0xFFFF for others).
std::uint16_t NativeProcessorArchitecture();
// The rule for the end of main: on a system whose name, lower-cased, holds
// "windows 7", the process ends itself instead of returning, unless the
// processor architecture is 6.
bool MustTerminateAtExit(const std::string& osName, std::uint16_t architecture);

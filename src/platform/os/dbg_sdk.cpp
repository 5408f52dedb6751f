#include "platform/os/dbg_sdk.h"

#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "platform/os/places.h"

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS};
constexpr std::size_t kSignalCount = sizeof(kSignals) / sizeof(kSignals[0]);

// Everything the handler needs is ready before a signal comes: it may only
// make async-signal-safe calls.
char g_logDir[PATH_MAX];
struct sigaction g_previous[kSignalCount];
bool g_installed = false;
std::mutex g_installMutex;
alignas(16) char g_altStack[64 * 1024];

std::string LogDirectory() { return tarn::os::CommonAppDataPath() + "/Vantrel/TARNCORE/log"; }

const char* SignalName(int sig) {
  switch (sig) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGFPE: return "SIGFPE";
    case SIGILL: return "SIGILL";
    case SIGABRT: return "SIGABRT";
    case SIGSYS: return "SIGSYS";
    default: return "?";
  }
}

void Put(int fd, const char* text) {
  std::size_t left = std::strlen(text);
  while (left > 0) {
    ssize_t n = ::write(fd, text, left);
    if (n <= 0) return;
    text += n;
    left -= static_cast<std::size_t>(n);
  }
}

// Decimal or hexadecimal text of a number, without the C library.
void PutNumber(int fd, unsigned long value, unsigned base) {
  char buf[32];
  char* p = buf + sizeof(buf) - 1;
  *p = '\0';
  do {
    unsigned digit = static_cast<unsigned>(value % base);
    *--p = static_cast<char>(digit < 10 ? '0' + digit : 'a' + digit - 10);
    value /= base;
  } while (value != 0);
  if (base == 16) {
    *--p = 'x';
    *--p = '0';
  }
  Put(fd, p);
}

void AppendText(char* out, std::size_t size, const char* text) {
  std::size_t used = std::strlen(out);
  std::size_t add = std::strlen(text);
  if (used + add >= size) add = size - used - 1;
  std::memcpy(out + used, text, add);
  out[used + add] = '\0';
}

void AppendNumber(char* out, std::size_t size, unsigned long value) {
  char digits[24];
  char* p = digits + sizeof(digits) - 1;
  *p = '\0';
  do {
    *--p = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  AppendText(out, size, p);
}

void CrashHandler(int sig, siginfo_t* info, void*) {
  char path[PATH_MAX + 64];
  path[0] = '\0';
  AppendText(path, sizeof(path), g_logDir);
  AppendText(path, sizeof(path), "/crash-");
  AppendNumber(path, sizeof(path), static_cast<unsigned long>(::getpid()));
  AppendText(path, sizeof(path), ".txt");

  int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd >= 0) {
    Put(fd, "signal ");
    PutNumber(fd, static_cast<unsigned long>(sig), 10);
    Put(fd, " (");
    Put(fd, SignalName(sig));
    Put(fd, ")\npid ");
    PutNumber(fd, static_cast<unsigned long>(::getpid()), 10);
    Put(fd, " tid ");
    PutNumber(fd, static_cast<unsigned long>(::syscall(SYS_gettid)), 10);
    if (info && sig != SIGABRT) {
      Put(fd, "\naddress ");
      PutNumber(fd, reinterpret_cast<unsigned long>(info->si_addr), 16);
    }
    Put(fd, "\nbacktrace:\n");
    void* frames[64];
    int count = ::backtrace(frames, 64);
    ::backtrace_symbols_fd(frames, count, fd);
    ::close(fd);
  }
  // The handler was installed with SA_RESETHAND: the signal, raised again or
  // re-raised by the faulting instruction, now ends the process as it would have.
  ::raise(sig);
}

}  // namespace

bool DbgSdkInit() {
  std::lock_guard<std::mutex> lock(g_installMutex);
  if (g_installed) return true;
  std::string dir = LogDirectory();
  if (dir.size() >= sizeof(g_logDir)) return false;
  tarn::os::MakeDirectories(dir);
  std::memcpy(g_logDir, dir.c_str(), dir.size() + 1);

  // backtrace loads its unwinder on first use; do that now, not in the handler.
  void* warmUp[2];
  ::backtrace(warmUp, 2);

  stack_t alt{};
  alt.ss_sp = g_altStack;
  alt.ss_size = sizeof(g_altStack);
  ::sigaltstack(&alt, nullptr);  // lets the main thread report a stack overflow

  struct sigaction action {};
  action.sa_sigaction = CrashHandler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (std::size_t i = 0; i < kSignalCount; ++i) {
    ::sigaction(kSignals[i], &action, &g_previous[i]);
  }
  g_installed = true;
  return true;
}

void DbgSdkUnInit() {
  std::lock_guard<std::mutex> lock(g_installMutex);
  if (!g_installed) return;
  for (std::size_t i = 0; i < kSignalCount; ++i) {
    ::sigaction(kSignals[i], &g_previous[i], nullptr);
  }
  g_installed = false;
}

namespace TarnCoreUcs {

namespace {
std::mutex g_ucsMutex;
std::string& g_ucsPath = *new std::string;
}  // namespace

void InitUcsKmsLog(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_ucsMutex);
  g_ucsPath = path;
}

std::string UcsKmsLogPath() {
  std::lock_guard<std::mutex> lock(g_ucsMutex);
  return g_ucsPath;
}

}  // namespace TarnCoreUcs

namespace tarn::os {

std::string CrashFilePath(pid_t pid) {
  return LogDirectory() + "/crash-" + std::to_string(pid) + ".txt";
}

}  // namespace tarn::os

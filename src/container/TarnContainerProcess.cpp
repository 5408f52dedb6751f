#include "container/TarnContainerProcess.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "container/pipe_message.h"
#include "platform/log/tarn_log.h"
#include "platform/os/cancellable_io.h"
#include "platform/os/last_error.h"
#include "thread/ThreadManager.h"

TarnPipeHandles PipeHandles;

namespace {

constexpr std::size_t kListenBufferSize = 8192;
constexpr std::size_t kReadSize = 4096;
constexpr std::uint32_t kLogonEvent = 5;
// The buffer is scanned as UTF-16 in place; the pipe carries little-endian units.
static_assert(std::endian::native == std::endian::little);

std::mutex g_handlersMutex;
TarnContainerProcess::EventHandlers g_handlers;

TarnContainerProcess::EventHandlers CurrentHandlers() {
  std::lock_guard lock(g_handlersMutex);
  return g_handlers;
}

// The standard descriptor, or -1 with the errno as last error when it is not open.
int StandardDescriptor(int fd) {
  if (::fcntl(fd, F_GETFD) < 0) {
    tarn::os::SetLastError(static_cast<std::uint32_t>(errno));
    return -1;
  }
  return fd;
}

}  // namespace

bool TarnContainerProcess::GetParentPipeHandle(TarnPipeHandles& handles) {
  handles.pipeRead = StandardDescriptor(STDIN_FILENO);
  if (handles.pipeRead == -1) {
    CLOGE("TarnContainerProcess::GetParentPipeHandle",
          "GetParentPipeHandle pipeRead failed error: " << tarn::os::GetLastError());
    // Closing the invalid value does nothing, as it did where this came from.
    ::close(handles.pipeRead);
    return false;
  }
  handles.pipeWrite = StandardDescriptor(STDOUT_FILENO);
  if (handles.pipeWrite == -1) {
    CLOGE("TarnContainerProcess::GetParentPipeHandle",
          "GetParentPipeHandle pipeWrite failed error: " << tarn::os::GetLastError());
  }
  return true;
}

bool TarnContainerProcess::SendDataPipe(const TarnPipeHandles& handles, const void* data,
                                        std::size_t size) {
  // A pipe whose reader has gone fails the write (EPIPE); it must not end the
  // process through SIGPIPE. The signal is held back on this thread for the
  // write and a SIGPIPE it caused is taken off again.
  sigset_t pipeSignal;
  sigset_t saved;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSignal, &saved);
  ssize_t written = handles.pipeWrite < 0 ? -1 : ::write(handles.pipeWrite, data, size);
  if (written < 0 && errno == EPIPE) {
    const timespec noWait{};
    ::sigtimedwait(&pipeSignal, nullptr, &noWait);
  }
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  if (written < 0 || static_cast<std::size_t>(written) != size) {
    CLOGE("TarnContainerProcess::SendDataPipe", "SendDataPipe failed");
    return false;
  }
  return true;
}

std::uint32_t TarnContainerProcess::Pipe_Listen(void* param) {
  auto* threadParam = static_cast<VantrelThread::ThreadParam*>(param);
  const int pipeRead = *static_cast<int*>(threadParam->arg);
  CLOGI("TarnContainerProcess::Pipe_Listen", "TarnContainerProcess.Pipe_Listen begin.");

  // Zero-ended whatever a read returns: only half of it is ever filled.
  static_assert(kListenBufferSize >= 2 * kReadSize);
  alignas(char16_t) char buffer[kListenBufferSize];
  while (threadParam->running) {
    std::uint32_t eventType = 0;
    std::uint32_t sessionId = 0;
    std::memset(buffer, 0, sizeof(buffer));
    // A failed read (a broken pipe, a cancel) goes straight to the next turn:
    // the service's end, through the exit handle, is what ends this loop.
    ssize_t n = tarn::os::CancellableRead(pipeRead, buffer, kReadSize);
    if (n <= 0) continue;

    if (!tarn::container::ScanNotifyWinEvent(reinterpret_cast<const char16_t*>(buffer),
                                             eventType, sessionId)) {
      continue;
    }
    if (eventType == 0 && sessionId == 0) {
      CLOGI("TarnContainerProcess::Pipe_Listen", "invalid notify");
      continue;
    }
    TARN_LOG(tarn::log::Level::Info, "service", "TarnContainerProcess::Pipe_Listen",
             "NotifyWinEvent " << eventType << "luEventId " << sessionId);

    const auto handlers = CurrentHandlers();
    // May block until the kits are up; nothing more is read meanwhile.
    if (handlers.notifyWinEventToKit) handlers.notifyWinEventToKit(eventType, sessionId);
    if (eventType == kLogonEvent && handlers.logonToCheckPrivacyNotice) {
      handlers.logonToCheckPrivacyNotice();
    }
  }

  CLOGI("TarnContainerProcess::Pipe_Listen", "TarnContainerProcess.Pipe_Listen end.");
  return 0;
}

void TarnContainerProcess::SetEventHandlers(EventHandlers handlers) {
  std::lock_guard lock(g_handlersMutex);
  g_handlers = std::move(handlers);
}

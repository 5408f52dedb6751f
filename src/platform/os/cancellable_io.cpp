#include "platform/os/cancellable_io.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "platform/os/last_error.h"
#include "platform/os/thread.h"
#include "platform/os/thread_context.h"

namespace tarn::os {

namespace {
void Drain(int fd) {
  std::uint64_t value;
  while (::read(fd, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value))) {
  }
}
}  // namespace

ssize_t CancellableRead(int fd, void* buffer, std::size_t size) {
  if (fd < 0) {  // poll would skip it and wait for the cancel alone
    SetLastError(EBADF);
    return -1;
  }
  auto context = detail::CurrentContext();
  {
    // A cancel that came while the thread was not reading is not for this read.
    std::lock_guard<std::mutex> lock(context->ioMutex);
    Drain(context->cancelFd);
    context->inRead = true;
  }
  auto finish = [&](ssize_t result, std::uint32_t error) {
    std::lock_guard<std::mutex> lock(context->ioMutex);
    context->inRead = false;
    Drain(context->cancelFd);
    if (result < 0) SetLastError(error);
    return result;
  };

  pollfd fds[2] = {{fd, POLLIN, 0}, {context->cancelFd, POLLIN, 0}};
  for (;;) {
    int rc = ::poll(fds, 2, -1);
    if (rc < 0) {
      if (errno == EINTR) continue;
      return finish(-1, static_cast<std::uint32_t>(errno));
    }
    if (fds[1].revents != 0) return finish(-1, kErrorOperationAborted);
    if (fds[0].revents & POLLNVAL) return finish(-1, EBADF);
    if (fds[0].revents == 0) continue;
    ssize_t n = ::read(fd, buffer, size);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    return finish(n, static_cast<std::uint32_t>(n < 0 ? errno : 0));
  }
}

bool CancelSynchronousIo(Thread* thread) {
  if (!thread || !thread->context()) {
    SetLastError(EBADF);
    return false;
  }
  auto& context = *thread->context();
  std::lock_guard<std::mutex> lock(context.ioMutex);
  if (!context.inRead) {
    SetLastError(kErrorNotFound);
    return false;
  }
  std::uint64_t one = 1;
  if (::write(context.cancelFd, &one, sizeof(one)) < 0) {
    SetLastError(static_cast<std::uint32_t>(errno));
    return false;
  }
  return true;
}

bool IsInCancellableRead(const Thread* thread) {
  if (!thread || !thread->context()) return false;
  auto& context = *thread->context();
  std::lock_guard<std::mutex> lock(context.ioMutex);
  return context.inRead;
}

}  // namespace tarn::os

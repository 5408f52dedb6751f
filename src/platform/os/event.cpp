#include "platform/os/event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace tarn::os {
namespace {

// A set and the wait that sees it order memory through the kernel, which the
// thread sanitizer can't see; tell it, keyed by the descriptor (a reused
// number only makes it miss a race, never report a false one).
#if defined(__SANITIZE_THREAD__)
char g_signalKeys[4096];
void SignalReleased(int fd) { __tsan_release(&g_signalKeys[static_cast<unsigned>(fd) % sizeof(g_signalKeys)]); }
void SignalAcquired(int fd) { __tsan_acquire(&g_signalKeys[static_cast<unsigned>(fd) % sizeof(g_signalKeys)]); }
#else
void SignalReleased(int) {}
void SignalAcquired(int) {}
#endif

}  // namespace

Event::Event(bool manualReset, bool initialState)
    : fd_(::eventfd(initialState ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK)), manual_(manualReset) {
  if (fd_ < 0) SetLastError(static_cast<std::uint32_t>(errno));
}

Event::~Event() {
  if (fd_ >= 0) ::close(fd_);
}

std::shared_ptr<Event> Event::Create(bool manualReset, bool initialState) {
  auto event = std::make_shared<Event>(manualReset, initialState);
  if (!event->valid()) return nullptr;
  return event;
}

bool Event::Set() {
  if (fd_ < 0) {
    SetLastError(EBADF);
    return false;
  }
  // The counter only has to be non-zero; a full counter (EAGAIN) is set as well.
  std::uint64_t one = 1;
  SignalReleased(fd_);
  if (::write(fd_, &one, sizeof(one)) < 0 && errno != EAGAIN) {
    SetLastError(static_cast<std::uint32_t>(errno));
    return false;
  }
  return true;
}

bool Event::Reset() {
  if (fd_ < 0) {
    SetLastError(EBADF);
    return false;
  }
  std::uint64_t value;
  if (::read(fd_, &value, sizeof(value)) < 0 && errno != EAGAIN) {
    SetLastError(static_cast<std::uint32_t>(errno));
    return false;
  }
  return true;
}

bool Event::Acquire() {
  if (manual_) return true;
  // Reading zeroes the counter: however often it was set, one waiter gets it.
  std::uint64_t value;
  return ::read(fd_, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value));
}

std::uint32_t WaitForSingle(Waitable* handle, std::uint32_t timeoutMs) {
  return WaitForAny(std::vector<Waitable*>{handle}, timeoutMs);
}

std::uint32_t WaitForFd(int fd, std::uint32_t timeoutMs) {
  FdHandle handle(fd);
  return WaitForSingle(&handle, timeoutMs);
}

std::uint32_t WaitForAny(const std::vector<Waitable*>& handles, std::uint32_t timeoutMs) {
  if (handles.empty() || handles.size() > kMaximumWaitObjects) {
    SetLastError(EINVAL);
    return kWaitFailed;
  }
  std::vector<pollfd> fds(handles.size());
  for (std::size_t i = 0; i < handles.size(); ++i) {
    int fd = handles[i] ? handles[i]->PollFd() : -1;
    if (fd < 0) {
      SetLastError(EBADF);
      return kWaitFailed;
    }
    fds[i] = pollfd{fd, POLLIN, 0};
  }

  using Clock = std::chrono::steady_clock;
  const bool infinite = timeoutMs == kInfinite;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int wait = -1;
    if (!infinite) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      wait = left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, INT_MAX));
    }
    int rc = ::poll(fds.data(), fds.size(), wait);
    if (rc < 0) {
      if (errno == EINTR) continue;
      SetLastError(static_cast<std::uint32_t>(errno));
      return kWaitFailed;
    }
    if (rc > 0) {
      for (const auto& p : fds) {
        if (p.revents & POLLNVAL) {
          SetLastError(EBADF);
          return kWaitFailed;
        }
      }
      for (std::size_t i = 0; i < fds.size(); ++i) {
        if (fds[i].revents != 0 && handles[i]->Acquire()) {
          SignalAcquired(fds[i].fd);
          return kWaitObject0 + static_cast<std::uint32_t>(i);
        }
      }
    }
    if (!infinite && Clock::now() >= deadline) return kWaitTimeout;
  }
}

}  // namespace tarn::os

#include "platform/os/message_queue.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/os/thread_context.h"

namespace tarn::os {

namespace {
// As on Windows: a queue holds at most this many posted messages.
constexpr std::size_t kQueueLimit = 10000;
constexpr std::uint32_t kErrorNotEnoughQuota = 1816;
// Shorter periods are raised to this, as Windows does.
constexpr std::uint32_t kTimerMinimumMs = 10;

void Drain(int fd) {
  std::uint64_t value;
  while (::read(fd, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value))) {
  }
}
}  // namespace

MessageQueue::MessageQueue()
    : epollFd_(::epoll_create1(EPOLL_CLOEXEC)), readyFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (epollFd_ >= 0 && readyFd_ >= 0) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = readyFd_;
    ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, readyFd_, &ev);
  }
}

MessageQueue::~MessageQueue() {
  for (auto& [id, timer] : timers_) ::close(timer.fd);
  if (readyFd_ >= 0) ::close(readyFd_);
  if (epollFd_ >= 0) ::close(epollFd_);
}

void MessageQueue::PushLocked(const Msg& msg) {
  if (messages_.empty()) {
    std::uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(readyFd_, &one, sizeof(one));
  }
  messages_.push_back(msg);
}

void MessageQueue::PumpTimersLocked() {
  for (auto& [id, timer] : timers_) {
    std::uint64_t expirations = 0;
    if (::read(timer.fd, &expirations, sizeof(expirations)) != static_cast<ssize_t>(sizeof(expirations))) {
      continue;
    }
    const std::uintptr_t timerId = id;
    bool pending = std::any_of(messages_.begin(), messages_.end(), [timerId](const Msg& m) {
      return m.message == kWmTimer && m.wParam == timerId;
    });
    if (!pending) PushLocked(Msg{kWmTimer, timerId, 0});
  }
}

bool MessageQueue::PopLocked(Msg* msg, bool remove) {
  PumpTimersLocked();
  if (messages_.empty()) return false;
  *msg = messages_.front();
  if (remove) {
    messages_.pop_front();
    if (messages_.empty()) Drain(readyFd_);
  }
  return true;
}

bool MessageQueue::Post(std::uint32_t message, std::uintptr_t wParam, std::intptr_t lParam) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (readyFd_ < 0) {
    SetLastError(EBADF);
    return false;
  }
  if (messages_.size() >= kQueueLimit) {
    SetLastError(kErrorNotEnoughQuota);
    return false;
  }
  PushLocked(Msg{message, wParam, lParam});
  return true;
}

bool MessageQueue::Peek(Msg* msg, bool remove) {
  std::lock_guard<std::mutex> lock(mutex_);
  return PopLocked(msg, remove);
}

int MessageQueue::Get(Msg* msg) {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (PopLocked(msg, true)) return msg->message == kWmQuit ? 0 : 1;
    }
    if (WaitForSingle(this, kInfinite) == kWaitFailed) return -1;
  }
}

bool MessageQueue::Acquire() {
  std::lock_guard<std::mutex> lock(mutex_);
  PumpTimersLocked();
  return !messages_.empty();
}

std::size_t MessageQueue::Size() {
  std::lock_guard<std::mutex> lock(mutex_);
  PumpTimersLocked();
  return messages_.size();
}

std::uintptr_t MessageQueue::SetTimer(std::uintptr_t id, std::uint32_t periodMs, TimerProc proc) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (id == 0) {
    while (timers_.count(nextTimerId_) != 0 || nextTimerId_ == 0) ++nextTimerId_;
    id = nextTimerId_++;
  }
  auto it = timers_.find(id);
  if (it == timers_.end()) {
    int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (fd < 0) {
      SetLastError(static_cast<std::uint32_t>(errno));
      return 0;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      SetLastError(static_cast<std::uint32_t>(errno));
      ::close(fd);
      return 0;
    }
    it = timers_.emplace(id, Timer{fd, {}}).first;
  }
  it->second.proc = std::move(proc);
  std::uint32_t period = std::max(periodMs, kTimerMinimumMs);
  itimerspec spec{};
  spec.it_interval.tv_sec = period / 1000;
  spec.it_interval.tv_nsec = static_cast<long>(period % 1000) * 1000000L;
  spec.it_value = spec.it_interval;
  ::timerfd_settime(it->second.fd, 0, &spec, nullptr);
  return id;
}

bool MessageQueue::KillTimer(std::uintptr_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = timers_.find(id);
  if (it == timers_.end()) {
    SetLastError(kErrorInvalidTimerId);
    return false;
  }
  ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
  ::close(it->second.fd);
  timers_.erase(it);
  return true;
}

bool MessageQueue::Dispatch(const Msg& msg) {
  if (msg.message != kWmTimer) return false;
  TimerProc proc;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = timers_.find(msg.wParam);
    if (it == timers_.end() || !it->second.proc) return false;
    proc = it->second.proc;
  }
  proc(msg.wParam);
  return true;
}

std::uint32_t GetCurrentThreadId() { return static_cast<std::uint32_t>(::syscall(SYS_gettid)); }

MessageQueue& CurrentMessageQueue() { return detail::CurrentContext()->queue; }

bool PostThreadMessage(std::uint32_t threadId, std::uint32_t message, std::uintptr_t wParam,
                       std::intptr_t lParam) {
  auto context = detail::FindContext(threadId);
  if (!context) {
    SetLastError(kErrorInvalidThreadId);
    return false;
  }
  return context->queue.Post(message, wParam, lParam);
}

int GetMessage(Msg* msg) { return CurrentMessageQueue().Get(msg); }
bool PeekMessage(Msg* msg, bool remove) { return CurrentMessageQueue().Peek(msg, remove); }
bool DispatchMessage(const Msg& msg) { return CurrentMessageQueue().Dispatch(msg); }

std::uintptr_t SetTimer(std::uintptr_t id, std::uint32_t periodMs, TimerProc proc) {
  return CurrentMessageQueue().SetTimer(id, periodMs, std::move(proc));
}

bool KillTimer(std::uintptr_t id) { return CurrentMessageQueue().KillTimer(id); }

std::uint32_t MsgWaitForMultipleObjects(const std::vector<Waitable*>& handles,
                                        std::uint32_t timeoutMs) {
  if (handles.size() >= kMaximumWaitObjects) {
    SetLastError(EINVAL);
    return kWaitFailed;
  }
  std::vector<Waitable*> all(handles);
  all.push_back(&CurrentMessageQueue());
  return WaitForAny(all, timeoutMs);
}

}  // namespace tarn::os

#include "platform/os/thread.h"

#include <cerrno>
#include <future>
#include <system_error>

#include "platform/os/thread_context.h"

namespace tarn::os {

std::shared_ptr<Thread> Thread::Start(std::function<void()> body) {
  std::shared_ptr<Thread> thread(new Thread);
  // The promise moves into the thread so nothing of the creator's stack is touched after it wakes.
  std::promise<std::shared_ptr<detail::ThreadContext>> ready;
  auto registered = ready.get_future();
  try {
    thread->thread_ = std::thread([body = std::move(body), ready = std::move(ready)]() mutable {
      ready.set_value(detail::CurrentContext());
      body();
      detail::EndCurrentThread();
    });
  } catch (const std::system_error& e) {
    SetLastError(static_cast<std::uint32_t>(e.code().value()));
    return nullptr;
  }
  thread->context_ = registered.get();
  thread->id_ = thread->context_->id;
  return thread;
}

Thread::~Thread() {
  if (thread_.joinable()) thread_.detach();
}

bool Thread::Ended() const {
  return WaitForSingle(&context_->ended, 0) == kWaitObject0;
}

int Thread::PollFd() const { return context_ ? context_->ended.PollFd() : -1; }

bool TerminateThread(Thread* thread, std::uint32_t /*exitCode*/) {
  if (!thread || !thread->joinable()) {
    SetLastError(EBADF);
    return false;
  }
  thread->context()->ended.Set();
  return true;
}

}  // namespace tarn::os

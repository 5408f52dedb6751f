#pragma once
// A thread with what the system's threads need: a 32-bit id others post to, a
// message queue, a cancel signal for its blocking reads, and a handle that
// signals when the thread ends.
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "platform/os/event.h"

namespace tarn::os {

namespace detail {
struct ThreadContext;
}

class Thread : public Waitable {
 public:
  // Starts body on a new thread and returns once the thread has its id and
  // queue registered. Null when no thread could be made.
  static std::shared_ptr<Thread> Start(std::function<void()> body);
  // A thread still attached is detached, not waited for.
  ~Thread() override;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // The kernel thread id while attached; 0 once detached, as std::thread::get_id.
  std::uint32_t Id() const { return thread_.joinable() ? id_ : 0; }
  bool joinable() const { return thread_.joinable(); }
  // std::system_error when the thread is no longer attached.
  void detach() { thread_.detach(); }
  // This object while attached, null after detach.
  Thread* native_handle() { return thread_.joinable() ? this : nullptr; }
  // True once the thread function returned (or the thread was abandoned).
  bool Ended() const;

  // Signalled when the thread ends.
  int PollFd() const override;
  bool Acquire() override { return true; }

  const std::shared_ptr<detail::ThreadContext>& context() const { return context_; }

 private:
  Thread() = default;
  std::thread thread_;
  std::shared_ptr<detail::ThreadContext> context_;
  std::uint32_t id_ = 0;
};

// Linux can't kill a thread safely. Terminating abandons it instead: its handle
// reads as ended from then on and the thread is left to the process exit.
// False with EBADF for a null or detached handle.
bool TerminateThread(Thread* thread, std::uint32_t exitCode);

}  // namespace tarn::os

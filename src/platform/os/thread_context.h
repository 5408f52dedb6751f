#pragma once
// What the platform keeps per thread: its message queue, the signal that
// cancels its blocking read, and whether it has ended. Found by
// thread id so other threads can post to or cancel it. Internal to the os layer.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/os/event.h"
#include "platform/os/message_queue.h"

namespace tarn::os::detail {

struct ThreadContext {
  ThreadContext();
  ~ThreadContext();

  std::uint32_t id = 0;
  MessageQueue queue;

  // Cancellable reads: inRead is true while the thread waits in one.
  std::mutex ioMutex;
  bool inRead = false;
  int cancelFd = -1;  // eventfd

  // Set when the thread function returned, or when the thread was abandoned.
  Event ended{true, false};
};

// The calling thread's context, registered under its id on first use.
std::shared_ptr<ThreadContext> CurrentContext();
// The context registered under an id; null when none.
std::shared_ptr<ThreadContext> FindContext(std::uint32_t id);
// Unregisters the calling thread and marks it ended.
void EndCurrentThread();

}  // namespace tarn::os::detail

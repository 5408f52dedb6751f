#pragma once
// Thread message queues: each managed thread has one, found by its 32-bit
// thread id, so other threads can post to it. Timers bound to a queue post a
// timer message when they expire. The queue is itself waitable (an epoll
// descriptor over its message signal and its timers), which is what lets a
// thread wait for events and messages at once.
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "platform/os/event.h"

namespace tarn::os {

constexpr std::uint32_t kWmQuit = 18;
constexpr std::uint32_t kWmTimer = 0x0113;
constexpr std::uint32_t kWmUser = 0x0400;

struct Msg {
  std::uint32_t message = 0;
  std::uintptr_t wParam = 0;
  std::intptr_t lParam = 0;
};

// Runs on the queue's thread when its timer message is dispatched; gets the timer id.
using TimerProc = std::function<void(std::uintptr_t timerId)>;

class MessageQueue : public Waitable {
 public:
  MessageQueue();
  ~MessageQueue() override;
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  bool Post(std::uint32_t message, std::uintptr_t wParam, std::intptr_t lParam);
  // Takes (or with remove false only reads) the oldest message; false when none.
  bool Peek(Msg* msg, bool remove);
  // Blocks until a message: 0 for the quit message, 1 for any other, -1 on failure.
  int Get(Msg* msg);
  // Starts or restarts a periodic timer; id 0 picks a new id. Returns the id, 0 on failure.
  std::uintptr_t SetTimer(std::uintptr_t id, std::uint32_t periodMs, TimerProc proc);
  bool KillTimer(std::uintptr_t id);
  // Runs the timer procedure of a timer message. False when the message has none.
  bool Dispatch(const Msg& msg);
  std::size_t Size();

  // Readable while a message waits or a timer has expired.
  int PollFd() const override { return epollFd_; }
  bool Acquire() override;

 private:
  struct Timer {
    int fd = -1;
    TimerProc proc;
  };
  // Turns expired timers into timer messages (one pending message per timer). Locked.
  void PumpTimersLocked();
  void PushLocked(const Msg& msg);
  bool PopLocked(Msg* msg, bool remove);

  std::mutex mutex_;
  std::deque<Msg> messages_;
  std::map<std::uintptr_t, Timer> timers_;
  std::uintptr_t nextTimerId_ = 1;
  int epollFd_ = -1;
  int readyFd_ = -1;  // eventfd, non-zero exactly while messages_ is not empty
};

// This thread's id: the kernel thread id, as the system posts to it.
std::uint32_t GetCurrentThreadId();
// The calling thread's queue; made on first use for threads not started by Thread.
MessageQueue& CurrentMessageQueue();

// Posts to the queue of a thread; false with kErrorInvalidThreadId when it has none.
bool PostThreadMessage(std::uint32_t threadId, std::uint32_t message, std::uintptr_t wParam,
                       std::intptr_t lParam);
// The calling thread's queue, in the shape of the Windows calls.
int GetMessage(Msg* msg);
bool PeekMessage(Msg* msg, bool remove);
bool DispatchMessage(const Msg& msg);
std::uintptr_t SetTimer(std::uintptr_t id, std::uint32_t periodMs, TimerProc proc = {});
bool KillTimer(std::uintptr_t id);

// Waits for any handle or for the calling thread's queue: handles.size() means
// a message waits (kWaitObject0 + i for handle i, kWaitTimeout, kWaitFailed).
// At most kMaximumWaitObjects - 1 handles.
std::uint32_t MsgWaitForMultipleObjects(const std::vector<Waitable*>& handles,
                                        std::uint32_t timeoutMs);

}  // namespace tarn::os

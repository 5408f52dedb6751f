#pragma once
// Events and waits with the results the system's logic compares with:
// kWaitObject0 + i for the i-th handle, kWaitTimeout, kWaitFailed (the errno
// then is the last error). Every waitable is a descriptor, so events, a
// thread's message queue and plain pipes are waited on together with poll.
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/os/last_error.h"

namespace tarn::os {

// Something a wait can block on.
class Waitable {
 public:
  virtual ~Waitable() = default;
  // The descriptor that turns readable (or hung up) when signalled; -1 when invalid.
  virtual int PollFd() const = 0;
  // Called when the descriptor is ready: takes the signal. An auto-reset event
  // consumes it here and answers false when another waiter was first.
  virtual bool Acquire() = 0;
};

// An event on an eventfd. Manual reset stays signalled until Reset; auto reset
// releases one waiter and resets itself.
class Event : public Waitable {
 public:
  Event(bool manualReset, bool initialState);
  ~Event() override;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // Null when no descriptor could be made (the errno is the last error).
  static std::shared_ptr<Event> Create(bool manualReset, bool initialState);

  bool Set();
  bool Reset();
  bool manualReset() const { return manual_; }
  bool valid() const { return fd_ >= 0; }

  int PollFd() const override { return fd_; }
  bool Acquire() override;

 private:
  int fd_;
  bool manual_;
};

// A descriptor that signals when readable or hung up, such as the read end of
// a pipe whose writer ends. It is not consumed by a wait. 0 and negative
// values are the null handle; the descriptor is not owned.
class FdHandle : public Waitable {
 public:
  explicit FdHandle(int fd) : fd_(fd) {}
  int PollFd() const override { return fd_ > 0 ? fd_ : -1; }
  bool Acquire() override { return true; }

 private:
  int fd_;
};

// Waits until the handle is signalled or the time-out (ms, kInfinite) passes.
// A null or invalid handle fails at once.
std::uint32_t WaitForSingle(Waitable* handle, std::uint32_t timeoutMs);
// Waits until any handle is signalled: the lowest signalled index wins. More
// than kMaximumWaitObjects handles, none at all, or an invalid one fail at once.
std::uint32_t WaitForAny(const std::vector<Waitable*>& handles, std::uint32_t timeoutMs);
// Waits on a descriptor as FdHandle does.
std::uint32_t WaitForFd(int fd, std::uint32_t timeoutMs);

template <class T>
std::uint32_t WaitForSingle(const std::shared_ptr<T>& handle, std::uint32_t timeoutMs) {
  return WaitForSingle(static_cast<Waitable*>(handle.get()), timeoutMs);
}

}  // namespace tarn::os

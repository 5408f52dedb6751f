#pragma once
// The millisecond tick counter and sleeps, behind a clock tests can replace so
// that periods and ages are tested without waiting.
#include <atomic>
#include <cstdint>

namespace tarn::os {

class Clock {
 public:
  virtual ~Clock() = default;
  // Milliseconds of a monotonic clock, truncated to 32 bits (it wraps after 49.7 days).
  virtual std::uint32_t TickCount() = 0;
  virtual void Sleep(std::uint32_t ms) = 0;
};

// CLOCK_MONOTONIC and nanosleep.
class SystemClock : public Clock {
 public:
  std::uint32_t TickCount() override;
  void Sleep(std::uint32_t ms) override;
};

// A clock that moves only when told; Sleep moves it forward at once.
class FakeClock : public Clock {
 public:
  explicit FakeClock(std::uint32_t start = 0) : now_(start) {}
  std::uint32_t TickCount() override { return now_.load(); }
  void Sleep(std::uint32_t ms) override { Advance(ms); }
  void Advance(std::uint32_t ms) { now_.fetch_add(ms); }
  void Set(std::uint32_t ticks) { now_.store(ticks); }

 private:
  std::atomic<std::uint32_t> now_;
};

// The process-wide clock; tests may install their own (nullptr restores the system clock).
Clock& GetClock();
void SetClockForTesting(Clock* clock);

std::uint32_t GetTickCount();
void Sleep(std::uint32_t ms);

}  // namespace tarn::os

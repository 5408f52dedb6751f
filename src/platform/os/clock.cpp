#include "platform/os/clock.h"

#include <time.h>

#include <cerrno>

namespace tarn::os {

std::uint32_t SystemClock::TickCount() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  std::uint64_t ms = static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
                     static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<std::uint32_t>(ms);
}

void SystemClock::Sleep(std::uint32_t ms) {
  timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

namespace {
SystemClock g_systemClock;
std::atomic<Clock*> g_clock{nullptr};
}  // namespace

Clock& GetClock() {
  Clock* clock = g_clock.load();
  return clock ? *clock : g_systemClock;
}

void SetClockForTesting(Clock* clock) { g_clock.store(clock); }

std::uint32_t GetTickCount() { return GetClock().TickCount(); }
void Sleep(std::uint32_t ms) { GetClock().Sleep(ms); }

}  // namespace tarn::os

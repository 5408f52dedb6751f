#pragma once
// Waits for what another thread or process brings about. The limit bounds
// liveness only: a test never asserts how soon something happens.
#include <chrono>
#include <functional>
#include <thread>

namespace tarn::test {

inline bool Eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace tarn::test

// The small test kits: one Echo that tells which kit answered and how often
// its entry function ran; loading one sets TARN_TEST_KIT_RAN_<kit name>.
// TEST_KIT_NO_ENTRY leaves the entry function out; TEST_KIT_SLOW_INIT makes
// it wait until ReleaseSlowInit is called.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include "tarnkit/tarn_kit.h"

namespace {
std::atomic<int> g_initCount{0};
std::mutex g_mutex;
std::condition_variable g_released;
bool g_release = false;

// Tests see whether this library's code ever ran in their process.
__attribute__((constructor)) void MarkRun() { ::setenv("TARN_TEST_KIT_RAN_" TEST_KIT_NAME, "1", 1); }
}  // namespace

#ifndef TEST_KIT_NO_ENTRY
TARN_KIT_API void Init(TarnKitCallback) {
#ifdef TEST_KIT_SLOW_INIT
  std::unique_lock lock(g_mutex);
  g_released.wait_for(lock, std::chrono::seconds(60), [] { return g_release; });
#endif
  ++g_initCount;
}
#endif

TARN_KIT_API void ReleaseSlowInit() {
  {
    std::lock_guard lock(g_mutex);
    g_release = true;
  }
  g_released.notify_all();
}

TARN_KIT_API void Echo(const char*, const char*, TarnKitCallback callback) {
  std::string answer = std::string("{\"kit\":\"") + TEST_KIT_NAME +
                       "\",\"initCount\":" + std::to_string(g_initCount.load()) + "}";
  callback(answer.data());
}

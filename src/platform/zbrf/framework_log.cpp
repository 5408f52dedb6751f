#include "platform/zbrf/framework_log.h"

#include <memory>
#include <mutex>

#include "platform/zbrf/log_adapter.h"
#include "platform/zbrf/service_manager.h"

namespace tarn::zbrf {

namespace {

std::mutex g_adapterMutex;
std::shared_ptr<LogAdapter>& g_adapter = *new std::shared_ptr<LogAdapter>;  // late threads may still log

}  // namespace

namespace detail {

void Log(LogLevel level, const std::string& text) {
  std::shared_ptr<LogAdapter> adapter;
  {
    std::lock_guard<std::mutex> lock(g_adapterMutex);
    adapter = g_adapter;
  }
  if (!adapter) return;
  static constexpr const char* kTag = "zbrf";
  switch (level) {
    case LogLevel::Debug: adapter->Debug(kTag, text.c_str()); break;
    case LogLevel::Info: adapter->Info(kTag, text.c_str()); break;
    case LogLevel::Warn: adapter->Warn(kTag, text.c_str()); break;
    case LogLevel::Error: adapter->Error(kTag, text.c_str()); break;
  }
}

}  // namespace detail

// The adapter serves every manager of the process: diagnostics have one place.
void ZServiceManager::RegisterLogAdapter(std::unique_ptr<LogAdapter> adapter) {
  std::shared_ptr<LogAdapter> shared(std::move(adapter));
  std::lock_guard<std::mutex> lock(g_adapterMutex);
  g_adapter = std::move(shared);
}

}  // namespace tarn::zbrf

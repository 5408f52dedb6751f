#include "platform/log/tarn_log.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/os/places.h"

namespace tarn::log {
namespace {

Level LevelFromEnvironment() {
  const char* env = std::getenv("SPDLOG_LEVEL");
  if (!env) return Level::Info;
  std::string v(env);
  std::transform(v.begin(), v.end(), v.begin(), [](unsigned char c) { return std::tolower(c); });
  if (v == "trace" || v == "debug") return Level::Debug;
  if (v == "info") return Level::Info;
  if (v == "warn" || v == "warning") return Level::Warn;
  if (v == "err" || v == "error" || v == "critical") return Level::Error;
  if (v == "off") return Level::Off;
  return Level::Info;
}

std::atomic<int>& ThresholdCell() {
  static std::atomic<int> cell{static_cast<int>(LevelFromEnvironment())};
  return cell;
}

spdlog::level::level_enum ToSpd(Level level) {
  switch (level) {
    case Level::Debug: return spdlog::level::debug;
    case Level::Info: return spdlog::level::info;
    case Level::Warn: return spdlog::level::warn;
    case Level::Error: return spdlog::level::err;
    case Level::Off: break;
  }
  return spdlog::level::off;
}

struct State {
  std::mutex mutex;  // guards logger replacement and the hook table
  std::vector<std::shared_ptr<spdlog::logger>> loggers;  // kept alive: writers hold raw pointers
  std::atomic<spdlog::logger*> current{nullptr};
  std::string path;
  std::map<int, Hook> hooks;
  int nextHook = 1;
  std::atomic<bool> hasHooks{false};
};

State& GetState() {
  static State* state = new State;  // never destroyed: threads may log during static teardown
  return *state;
}

spdlog::logger* CurrentLogger() {
  return GetState().current.load(std::memory_order_acquire);
}

// Flushing every line costs the writer a write(2) per line; a short period
// keeps the file current for readers without that.
void StartPeriodicFlush() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::thread([] {
      for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (auto* logger = CurrentLogger()) logger->flush();
      }
    }).detach();
  });
}

}  // namespace

bool Enabled(Level level) noexcept {
  return static_cast<int>(level) >= ThresholdCell().load(std::memory_order_relaxed) &&
         level != Level::Off;
}

void SetThreshold(Level level) noexcept {
  ThresholdCell().store(static_cast<int>(level), std::memory_order_relaxed);
}

Level Threshold() noexcept {
  return static_cast<Level>(ThresholdCell().load(std::memory_order_relaxed));
}

std::string LogDirectory() { return os::CommonAppDataPath() + "/Vantrel/TARNCORE/log/"; }

std::string LogFilePath() {
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  return s.path;
}

void Open(const std::string& baseName, int fileCount, int fileSizeMiB) {
  const std::string dir = LogDirectory();
  os::MakeDirectories(dir);
  const std::string path = dir + baseName + ".log";
  std::shared_ptr<spdlog::logger> logger;
  try {
    // Callers format and copy into the file's stdio buffer under the sink's
    // lock; the disk sees a write when the buffer fills, on a warning, or from
    // the periodic flush. That costs a request thread far less than waking a
    // writer thread per line.
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
        path, static_cast<std::size_t>(std::max(1, fileSizeMiB)) * 1024 * 1024,
        static_cast<std::size_t>(std::max(1, fileCount) - 1));
    logger = std::make_shared<spdlog::logger>(baseName, std::move(sink));
    // The pid goes into the pattern as text: %P would ask the kernel per line.
    logger->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [" + std::to_string(::getpid()) +
                        ":%t] [%L] %v");
    logger->set_level(spdlog::level::trace);  // the threshold is tested before formatting
    logger->flush_on(spdlog::level::warn);    // failures reach the disk at once
  } catch (const spdlog::spdlog_ex&) {
    return;  // no file: lines still reach the hooks
  }
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  s.loggers.push_back(logger);
  s.current.store(logger.get(), std::memory_order_release);
  s.path = path;
  StartPeriodicFlush();
}

void Write(Level level, std::string_view tag, std::string_view text) {
  if (!Enabled(level)) return;
  State& s = GetState();
  if (s.hasHooks.load(std::memory_order_acquire)) {
    Record record{level, std::string(tag), std::string(text)};
    std::lock_guard lock(s.mutex);
    for (auto& [id, hook] : s.hooks) hook(record);
  }
  if (auto logger = CurrentLogger()) {
    logger->log(ToSpd(level), "[{}] {}", tag, text);
  }
}

int AddHook(Hook hook) {
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  int id = s.nextHook++;
  s.hooks.emplace(id, std::move(hook));
  s.hasHooks.store(true, std::memory_order_release);
  return id;
}

void RemoveHook(int id) {
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  s.hooks.erase(id);
  s.hasHooks.store(!s.hooks.empty(), std::memory_order_release);
}

}  // namespace tarn::log

void initTarnLog(int fileCount, int fileSizeMiB) {
  tarn::log::Open("TarnCoreContainer", fileCount, fileSizeMiB);
}

void TARNLOGD(std::string tag, std::string text) {
  tarn::log::Write(tarn::log::Level::Debug, tag, text);
}
void TARNLOGI(std::string tag, std::string text) {
  tarn::log::Write(tarn::log::Level::Info, tag, text);
}
void TARNLOGW(std::string tag, std::string text) {
  tarn::log::Write(tarn::log::Level::Warn, tag, text);
}
void TARNLOGE(std::string tag, std::string text) {
  tarn::log::Write(tarn::log::Level::Error, tag, text);
}

void FlushTarnLogFile() {
  if (auto* logger = tarn::log::CurrentLogger()) logger->flush();
}

bool TarnCreateDirbyLev(const std::string& path, int /*level*/) {
  return tarn::os::MakeDirectories(path);
}

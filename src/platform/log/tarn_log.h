#pragma once
// The container's log: the five functions the system calls by name, on spdlog
// with an asynchronous rotating file, plus a level test so hot paths can skip
// building text nobody will read.
#include <functional>
#include <sstream>
#include <string>
#include <string_view>

// Opens <common app data>/Vantrel/TARNCORE/log/TarnCoreContainer.log: fileCount
// rotated files of fileSizeMiB MiB each. Called once, first thing in main.
void initTarnLog(int fileCount, int fileSizeMiB);
void TARNLOGD(std::string tag, std::string text);
void TARNLOGI(std::string tag, std::string text);
void TARNLOGW(std::string tag, std::string text);
void TARNLOGE(std::string tag, std::string text);
// Writes out everything logged so far.
void FlushTarnLogFile();
// Creates a directory tree (mode 0755); true when it exists afterwards.
bool TarnCreateDirbyLev(const std::string& path, int level);

namespace tarn::log {

enum class Level { Debug = 0, Info = 1, Warn = 2, Error = 3, Off = 4 };

// Cheap: one relaxed atomic load.
bool Enabled(Level level) noexcept;
void SetThreshold(Level level) noexcept;
Level Threshold() noexcept;

void Write(Level level, std::string_view tag, std::string_view text);

// Opens a rotating log named <baseName>.log in the log folder of the machine
// root. initTarnLog uses "TarnCoreContainer"; the other programs their own names.
void Open(const std::string& baseName, int fileCount, int fileSizeMiB);
// Folder of the log files, with a trailing '/'.
std::string LogDirectory();
// Path of the open log file, empty before Open.
std::string LogFilePath();

struct Record {
  Level level;
  std::string tag;
  std::string text;
};
using Hook = std::function<void(const Record&)>;
// Hooks see every line at or above the threshold, on the thread that logs it.
int AddHook(Hook hook);
void RemoveHook(int id);

}  // namespace tarn::log

// TARN_LOG(level, tag, "Class::Method", message << values) forms
// "message values(Class::Method)" only when the level is on.
#define TARN_LOG(level, tag, where, ...)                                \
  do {                                                                  \
    if (::tarn::log::Enabled(level)) {                                  \
      std::ostringstream tarn_log_stream_;                              \
      tarn_log_stream_ << __VA_ARGS__ << "(" << where << ")";           \
      ::tarn::log::Write(level, tag, tarn_log_stream_.str());           \
    }                                                                   \
  } while (0)

// The container's own lines, always tagged "container".
#define CLOGD(where, ...) TARN_LOG(::tarn::log::Level::Debug, "container", where, __VA_ARGS__)
#define CLOGI(where, ...) TARN_LOG(::tarn::log::Level::Info, "container", where, __VA_ARGS__)
#define CLOGW(where, ...) TARN_LOG(::tarn::log::Level::Warn, "container", where, __VA_ARGS__)
#define CLOGE(where, ...) TARN_LOG(::tarn::log::Level::Error, "container", where, __VA_ARGS__)

#pragma once
// The container's log: the five functions the system calls by name, on
// spdlog's rotating file, plus a level test so hot paths can skip building
// text nobody will read. A thread that logs formats its line and puts it in a
// ring without taking a lock; the log's own thread writes the lines out in
// batches, in the order they were put in. A warning or an error is written
// out at once, with everything before it; what is left is written at exit.
#include <charconv>
#include <functional>
#include <ostream>
#include <sstream>  // callers have long relied on it
#include <string>
#include <string_view>

// Opens <common app data>/Vantrel/TARNCORE/log/TarnCoreContainer.log: fileCount
// rotated files of fileSizeMiB MiB each. Called once, first thing in main.
void initTarnLog(int fileCount, int fileSizeMiB);
void TARNLOGD(std::string tag, std::string text);
void TARNLOGI(std::string tag, std::string text);
void TARNLOGW(std::string tag, std::string text);
void TARNLOGE(std::string tag, std::string text);
// Writes out everything logged so far, and waits until it is written.
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
// A program that can't write there (a desktop program running as the person)
// logs to $XDG_STATE_HOME/tarncore/log/, by default ~/.local/state/tarncore/log/.
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

// The text of one line while it is formed, with what a new std::ostringstream
// would make of the same insertions. It borrows its thread's stream, so a line
// costs no stream construction; a line formed while another one is (a value
// whose operator<< logs) gets a stream of its own. Texts and integers go
// straight into the text while the stream has its default formatting; every
// other value, and every value after a manipulator, goes through the stream.
class Line {
 public:
  class Buffer;  // defined by the log library

  Line();
  ~Line();
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  std::ostream& Stream() noexcept { return *stream_; }
  std::string_view Text() const noexcept;

  // Inline, so that a literal's length is known where it is written.
  Line& operator<<(const char* text) { return text ? Append(std::string_view(text)) : AppendNull(); }
  Line& operator<<(const std::string& text) { return Append(text); }
  Line& operator<<(std::string_view text) { return Append(text); }
  Line& operator<<(int value) { return Integer(value); }
  Line& operator<<(long value) { return Integer(value); }
  Line& operator<<(long long value) { return Integer(value); }
  Line& operator<<(unsigned value) { return Integer(value); }
  Line& operator<<(unsigned long value) { return Integer(value); }
  Line& operator<<(unsigned long long value) { return Integer(value); }
  Line& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    *stream_ << manipulator;
    return *this;
  }
  Line& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    *stream_ << manipulator;
    return *this;
  }
  template <typename T>
  Line& operator<<(const T& value) {
    *stream_ << value;
    return *this;
  }

 private:
  Line& Append(std::string_view text);
  Line& AppendNull();
  template <typename I>
  Line& Integer(I value) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    return AppendNumber(digits, static_cast<std::size_t>(end - digits), value);
  }
  template <typename I>
  Line& AppendNumber(const char* digits, std::size_t size, I value) {
    if (PlainNumbers()) {
      AppendRaw(digits, size);
    } else {
      *stream_ << value;
    }
    return *this;
  }
  bool PlainNumbers() const noexcept;
  void AppendRaw(const char* data, std::size_t size);

  Buffer* buffer_;
  std::ostream* stream_;
  bool owned_;
};

}  // namespace tarn::log

// TARN_LOG(level, tag, "Class::Method", message << values) forms
// "message values(Class::Method)" only when the level is on.
#define TARN_LOG(level, tag, where, ...)                                \
  do {                                                                  \
    if (::tarn::log::Enabled(level)) {                                  \
      ::tarn::log::Line tarn_log_line_;                                 \
      tarn_log_line_ << __VA_ARGS__ << "(" << where << ")";             \
      ::tarn::log::Write(level, tag, tarn_log_line_.Text());            \
    }                                                                   \
  } while (0)

// The container's own lines, always tagged "container".
#define CLOGD(where, ...) TARN_LOG(::tarn::log::Level::Debug, "container", where, __VA_ARGS__)
#define CLOGI(where, ...) TARN_LOG(::tarn::log::Level::Info, "container", where, __VA_ARGS__)
#define CLOGW(where, ...) TARN_LOG(::tarn::log::Level::Warn, "container", where, __VA_ARGS__)
#define CLOGE(where, ...) TARN_LOG(::tarn::log::Level::Error, "container", where, __VA_ARGS__)

#include "platform/log/tarn_log.h"

#include <spdlog/details/fmt_helper.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/base_sink-inl.h>  // the templates, for a lock of our own
#include <spdlog/sinks/rotating_file_sink-inl.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <streambuf>
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

}  // namespace

// The stream a line is formed in, kept per thread and reset for each line to
// what a new std::ostringstream would be.
class Line::Buffer : public std::streambuf {
 public:
  // The stream keeps the locale it was made with; integers are written
  // directly only where that locale formats them as std::to_chars does.
  Buffer() : stream(this), classicNumbers(stream.getloc() == std::locale::classic()) {}

  void Reset() {
    text.clear();
    stream.clear();
    stream.exceptions(std::ios_base::goodbit);
    stream.flags(std::ios_base::dec | std::ios_base::skipws);
    stream.fill(' ');
    stream.width(0);
    stream.precision(6);
  }

  std::string text;
  std::ostream stream;
  const bool classicNumbers;
  bool busy = false;

 protected:
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof())) text.push_back(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    text.append(s, static_cast<std::size_t>(n));
    return n;
  }
};

namespace {

// What a thread reuses from line to line. Threads may log from the destructors
// of other thread-local objects, after this one is gone: `t_scratchGone` (with
// no destructor of its own) tells them to make do with locals then.
struct Scratch {
  ~Scratch() {
    delete line;
    line = nullptr;
    formatter.reset();
    t_scratchGone = true;
  }
  static thread_local bool t_scratchGone;

  Line::Buffer* line = nullptr;
  std::string payload;
  spdlog::memory_buf_t formatted;
  std::unique_ptr<spdlog::formatter> formatter;
  std::uint64_t formatterOwner = 0;
};
thread_local bool Scratch::t_scratchGone = false;

// A rare huge line (a request text) should not pin its memory to a thread.
constexpr std::size_t kKeptCapacity = 64 * 1024;

void KeepSmall(std::string& text) {
  if (text.capacity() > kKeptCapacity) std::string().swap(text);
}

Scratch* ThreadScratch() {
  if (Scratch::t_scratchGone) return nullptr;
  thread_local Scratch scratch;
  return &scratch;
}

// The file's lock. Its holders only copy a line (now and then they write the
// buffer out), so a thread that finds it taken spins a little before it
// sleeps: on two cores that saves a futex wait and wake per collision.
class SpinThenSleepMutex {
 public:
  SpinThenSleepMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&mutex_, &attr);
    pthread_mutexattr_destroy(&attr);
  }
  ~SpinThenSleepMutex() { pthread_mutex_destroy(&mutex_); }
  SpinThenSleepMutex(const SpinThenSleepMutex&) = delete;
  SpinThenSleepMutex& operator=(const SpinThenSleepMutex&) = delete;
  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_;
};

using RotatingFile = spdlog::sinks::rotating_file_sink<SpinThenSleepMutex>;

// The file's line: "[%Y-%m-%d %H:%M:%S.%e] [<pid>:%t] [%L] %v" and a line
// feed, formed directly. The container writes over a dozen lines per request,
// and spdlog's general pattern engine spent most of a line's cost walking its
// list of flags; the date part is kept per second of a thread's lines. The pid
// is text made once: asking the kernel per line would cost a system call.
class LineFormatter final : public spdlog::formatter {
 public:
  explicit LineFormatter(std::string pid) : pid_(std::move(pid)), pidPart_("] [" + pid_ + ":") {}

  void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override {
    using spdlog::details::fmt_helper::append_string_view;
    const auto sinceEpoch = msg.time.time_since_epoch();
    const auto second = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    if (second != second_ || dateSize_ == 0) {
      const std::tm tm = spdlog::details::os::localtime(spdlog::log_clock::to_time_t(msg.time));
      int n = std::snprintf(date_, sizeof(date_), "[%d-%02d-%02d %02d:%02d:%02d.", tm.tm_year + 1900,
                            tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
      dateSize_ = n > 0 ? std::min(static_cast<std::size_t>(n), sizeof(date_) - 1) : 0;
      second_ = second;
    }
    dest.append(date_, date_ + dateSize_);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - second).count();
    spdlog::details::fmt_helper::pad3(static_cast<std::uint32_t>(millis), dest);
    append_string_view(pidPart_, dest);
    spdlog::details::fmt_helper::append_int(msg.thread_id, dest);
    append_string_view("] [", dest);
    append_string_view(spdlog::level::to_short_c_str(msg.level), dest);
    append_string_view("] ", dest);
    dest.append(msg.payload.begin(), msg.payload.end());
    append_string_view(spdlog::details::os::default_eol, dest);
  }
  std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<LineFormatter>(pid_); }

 private:
  const std::string pid_;
  const std::string pidPart_;
  std::chrono::seconds second_{0};
  char date_[64] = {};
  std::size_t dateSize_ = 0;
};

// Hands the rotating file a line that is already formatted.
class Verbatim final : public spdlog::formatter {
 public:
  void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override {
    dest.append(msg.payload.begin(), msg.payload.end());
  }
  std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<Verbatim>(); }
};

// The log file. Each thread formats its lines with its own copy of the
// pattern before it takes the file's lock, so the lock covers only the copy
// into the file's buffer (and, now and then, a write or a rotation). Lines of
// one thread stay in their order, and a line is in the file's buffer before
// its Write returns.
class FileSink final : public spdlog::sinks::sink {
 public:
  FileSink(const std::string& path, std::size_t maxSize, std::size_t maxFiles,
           std::unique_ptr<spdlog::formatter> line)
      : id_(NextId()), pattern_(std::move(line)) {
    // A larger buffer than stdio's own means one write(2) per many lines.
    auto buffer = std::make_shared<std::vector<char>>(64 * 1024);
    spdlog::file_event_handlers handlers;
    handlers.after_open = [buffer](const spdlog::filename_t&, std::FILE* file) {
      std::setvbuf(file, buffer->data(), _IOFBF, buffer->size());
    };
    file_ = std::make_shared<RotatingFile>(path, maxSize, maxFiles, false, handlers);
    file_->set_formatter(std::make_unique<Verbatim>());
  }

  void log(const spdlog::details::log_msg& msg) override {
    Scratch* scratch = ThreadScratch();
    std::unique_ptr<spdlog::formatter> ownFormatter;
    spdlog::memory_buf_t ownBuffer;
    spdlog::formatter* formatter;
    spdlog::memory_buf_t* out;
    if (scratch) {
      if (scratch->formatterOwner != id_) {
        scratch->formatter = pattern_->clone();
        scratch->formatterOwner = id_;
      }
      formatter = scratch->formatter.get();
      out = &scratch->formatted;
    } else {
      ownFormatter = pattern_->clone();
      formatter = ownFormatter.get();
      out = &ownBuffer;
    }
    out->clear();
    formatter->format(msg, *out);
    spdlog::details::log_msg line(msg.time, msg.source, msg.logger_name, msg.level,
                                  spdlog::string_view_t(out->data(), out->size()));
    file_->log(line);
  }

  void flush() override { file_->flush(); }
  // The pattern is fixed when the sink is made.
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

 private:
  static std::uint64_t NextId() {
    static std::atomic<std::uint64_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
  }

  const std::uint64_t id_;  // tells a thread's copy of the pattern which sink it is for
  const std::unique_ptr<spdlog::formatter> pattern_;
  std::shared_ptr<RotatingFile> file_;
};

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
    // Callers format their line and copy it into the file's buffer; the disk
    // sees a write when the buffer fills, on a warning, or from the periodic
    // flush. That costs a request thread far less than waking a writer thread
    // per line.
    auto sink = std::make_shared<FileSink>(
        path, static_cast<std::size_t>(std::max(1, fileSizeMiB)) * 1024 * 1024,
        static_cast<std::size_t>(std::max(1, fileCount) - 1),
        std::make_unique<LineFormatter>(std::to_string(::getpid())));
    logger = std::make_shared<spdlog::logger>(baseName, std::move(sink));
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
    Scratch* scratch = ThreadScratch();
    std::string own;
    std::string& payload = scratch ? scratch->payload : own;
    payload.clear();
    payload.reserve(tag.size() + text.size() + 3);
    payload += '[';
    payload += tag;
    payload += "] ";
    payload += text;
    logger->log(ToSpd(level), spdlog::string_view_t(payload.data(), payload.size()));
    if (scratch) {
      KeepSmall(scratch->payload);
      if (scratch->formatted.capacity() > kKeptCapacity) scratch->formatted = spdlog::memory_buf_t();
    }
  }
}

Line::Line() {
  Scratch* scratch = ThreadScratch();
  if (scratch) {
    if (!scratch->line) scratch->line = new Buffer;
    if (!scratch->line->busy) {
      buffer_ = scratch->line;
      owned_ = false;
    } else {
      buffer_ = new Buffer;
      owned_ = true;
    }
  } else {
    buffer_ = new Buffer;
    owned_ = true;
  }
  buffer_->Reset();
  buffer_->busy = true;
  stream_ = &buffer_->stream;
}

Line::~Line() {
  if (owned_) {
    delete buffer_;
  } else {
    KeepSmall(buffer_->text);
    buffer_->busy = false;
  }
}

std::string_view Line::Text() const noexcept { return buffer_->text; }

Line& Line::operator<<(const char* text) {
  if (!text) {
    *stream_ << text;  // what a stream does with a null text: it fails from here on
    return *this;
  }
  return Append(std::string_view(text));
}

Line& Line::Append(std::string_view text) {
  // A stream that failed writes nothing more; a width pads.
  if (stream_->good() && stream_->width() == 0) {
    buffer_->text.append(text);
  } else {
    *stream_ << text;
  }
  return *this;
}

bool Line::PlainNumbers() const noexcept {
  return buffer_->classicNumbers && stream_->good() && stream_->width() == 0 &&
         stream_->flags() == (std::ios_base::dec | std::ios_base::skipws);
}

void Line::AppendRaw(const char* data, std::size_t size) { buffer_->text.append(data, size); }

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

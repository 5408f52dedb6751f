#include "platform/log/tarn_log.h"

#include <poll.h>
#include <pthread.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <streambuf>
#include <thread>

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

// A line as the file has it: "[%Y-%m-%d %H:%M:%S.%e] [<pid>:%t] [%L] [<tag>] ",
// the text and a line feed, formed in one pass. The date part is kept per
// second of a thread's lines; the pid is text made once, as asking the kernel
// per line would cost a system call.
class LineFormat {
 public:
  void Format(const spdlog::details::log_msg& msg, std::string_view pidPart, spdlog::memory_buf_t& dest) {
    const auto sinceEpoch = msg.time.time_since_epoch();
    const auto second = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    if (second != second_ || dateSize_ == 0) {
      const std::tm tm = spdlog::details::os::localtime(spdlog::log_clock::to_time_t(msg.time));
      int n = std::snprintf(date_, sizeof(date_), "[%d-%02d-%02d %02d:%02d:%02d.", tm.tm_year + 1900,
                            tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
      dateSize_ = n > 0 ? std::min(static_cast<std::size_t>(n), sizeof(date_) - 1) : 0;
      second_ = second;
    }
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - second).count();
    char thread[24];
    const std::size_t threadSize =
        static_cast<std::size_t>(std::to_chars(thread, thread + sizeof(thread), msg.thread_id).ptr - thread);
    const std::string_view level = spdlog::level::to_short_c_str(msg.level);
    const std::string_view eol = spdlog::details::os::default_eol;

    dest.resize(dateSize_ + 3 + pidPart.size() + threadSize + 3 + level.size() + 3 + msg.logger_name.size() + 2 +
                msg.payload.size() + eol.size());
    char* p = dest.data();
    auto put = [&p](const char* text, std::size_t size) {
      std::memcpy(p, text, size);
      p += size;
    };
    put(date_, dateSize_);
    *p++ = static_cast<char>('0' + millis / 100);
    *p++ = static_cast<char>('0' + millis / 10 % 10);
    *p++ = static_cast<char>('0' + millis % 10);
    put(pidPart.data(), pidPart.size());
    put(thread, threadSize);
    put("] [", 3);
    put(level.data(), level.size());
    put("] [", 3);
    put(msg.logger_name.data(), msg.logger_name.size());  // the tag
    put("] ", 2);
    put(msg.payload.data(), msg.payload.size());
    put(eol.data(), eol.size());
  }

 private:
  std::chrono::seconds second_{0};
  char date_[64] = {};
  std::size_t dateSize_ = 0;
};

// What a thread reuses from line to line. Threads may log from the destructors
// of other thread-local objects, after this one is gone: `t_scratchGone` (with
// no destructor of its own) tells them to make do with locals then.
struct Scratch {
  ~Scratch() {
    delete line;
    line = nullptr;
    t_scratchGone = true;
  }
  static thread_local bool t_scratchGone;

  Line::Buffer* line = nullptr;
  spdlog::memory_buf_t formatted;
  LineFormat format;
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

// Lines on their way to the file, in the order their writers reserved room.
// A writer reserves room with one atomic add, copies its line in and marks it
// complete; whoever drains (the log's own thread, or the writer of a warning)
// takes complete lines from the tail in that order. So a thread that logs
// waits neither for a lock nor for the disk; only a full ring (the disk that
// far behind) makes it wait for room.
//
// A record is an 8-byte word, 0 until the line is complete and then its length
// plus one, followed by the line, padded to 8 bytes. Drained room is zeroed
// before it is handed back, so a record's word reads 0 until its writer is done.
class LineRing {
 public:
  // A power of two. Lines are written out from 64 KiB on; the rest is room
  // for the time the drainer is held up, as by a rotation of the files, while
  // a busy container logs tens of MiB a second.
  static constexpr std::uint64_t kSize = 1024 * 1024;
  // Longer lines don't go through the ring.
  static constexpr std::size_t kMaxLine = 64 * 1024;

  // Zeroed by calloc, which leaves the fresh pages untouched: a ring costs
  // memory only as far as lines have reached.
  LineRing() : words_(static_cast<std::uint64_t*>(std::calloc(kSize / kWord, kWord))) {
    if (!words_) throw std::bad_alloc();
  }

  // Reserves room, copies the line in and marks it complete. Returns the
  // position just past it.
  std::uint64_t Put(const char* line, std::size_t size) {
    const std::uint64_t length = Padded(size);
    const std::uint64_t at = head_.fetch_add(length, std::memory_order_relaxed);
    WaitForRoom(at + length);
    const std::size_t body = Offset(at + kWord);
    const std::size_t first = std::min<std::size_t>(size, kSize - body);
    std::memcpy(Bytes() + body, line, first);
    std::memcpy(Bytes(), line + first, size - first);
    Word(at).store(size + 1, std::memory_order_release);
    return at + length;
  }

  // Appends the lines from the tail up to `until` (a position Put returned, or
  // the head) to out, in order, and hands their room back. A line reserved
  // before `until` whose writer is still copying it in is waited for. One
  // thread drains at a time.
  void Take(std::uint64_t until, std::string& out) {
    const std::uint64_t start = tail_.load(std::memory_order_relaxed);
    std::uint64_t tail = start, zeroed = start;
    while (tail < until) {
      // Drained room not yet handed back still holds its lines, and a record
      // a ring's length further on lies in it: hand room back in halves.
      if (tail - zeroed >= kSize / 2) {
        Release(zeroed, tail);
        zeroed = tail;
      }
      std::uint64_t word = Word(tail).load(std::memory_order_acquire);
      if (word == 0) {
        // Its writer may be waiting for the room drained so far.
        Release(zeroed, tail);
        zeroed = tail;
        while ((word = Word(tail).load(std::memory_order_acquire)) == 0) std::this_thread::yield();
      }
      const std::size_t size = static_cast<std::size_t>(word - 1);
      const std::size_t body = Offset(tail + kWord);
      const std::size_t first = std::min<std::size_t>(size, kSize - body);
      out.append(Bytes() + body, first);
      out.append(Bytes(), size - first);
      tail += Padded(size);
    }
    Release(zeroed, tail);
  }

  std::uint64_t Head() const { return head_.load(std::memory_order_acquire); }
  // Bytes reserved and not yet drained.
  std::uint64_t Pending() const {
    return head_.load(std::memory_order_relaxed) - tail_.load(std::memory_order_relaxed);
  }

  // Called when a writer has to wait for room, to wake the drainer.
  std::function<void()> needRoom;

 private:
  static constexpr std::uint64_t kWord = 8;
  static std::uint64_t Padded(std::size_t size) { return kWord + ((size + kWord - 1) & ~(kWord - 1)); }
  static std::size_t Offset(std::uint64_t position) { return static_cast<std::size_t>(position & (kSize - 1)); }

  char* Bytes() { return reinterpret_cast<char*>(words_.get()); }
  std::atomic_ref<std::uint64_t> Word(std::uint64_t position) {
    return std::atomic_ref<std::uint64_t>(words_.get()[Offset(position) / kWord]);
  }

  // Zeroes [from, to) and hands it back to writers.
  void Release(std::uint64_t from, std::uint64_t to) {
    if (from == to) return;
    const std::size_t at = Offset(from);
    const std::size_t first = static_cast<std::size_t>(std::min<std::uint64_t>(to - from, kSize - at));
    std::memset(Bytes() + at, 0, first);
    std::memset(Bytes(), 0, static_cast<std::size_t>(to - from - first));
    tail_.store(to, std::memory_order_seq_cst);
    if (waiting_.load(std::memory_order_seq_cst) > 0) tail_.notify_all();
  }

  void WaitForRoom(std::uint64_t end) {
    for (int spins = 0;; ++spins) {
      const std::uint64_t tail = tail_.load(std::memory_order_seq_cst);
      if (end - tail <= kSize) return;
      if (spins < 64) {
        std::this_thread::yield();
        continue;
      }
      waiting_.fetch_add(1, std::memory_order_seq_cst);
      if (needRoom) needRoom();
      tail_.wait(tail, std::memory_order_seq_cst);
      waiting_.fetch_sub(1, std::memory_order_seq_cst);
    }
  }

  struct Free {
    void operator()(std::uint64_t* p) const { std::free(p); }
  };
  std::unique_ptr<std::uint64_t, Free> words_;
  std::atomic<std::uint64_t> head_{0};
  std::atomic<std::uint64_t> tail_{0};
  std::atomic<int> waiting_{0};
};

using RotatingFile = spdlog::sinks::rotating_file_sink_st;

// Hands the rotating file text that is already formatted.
class Verbatim final : public spdlog::formatter {
 public:
  void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override {
    dest.append(msg.payload.begin(), msg.payload.end());
  }
  std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<Verbatim>(); }
};

struct State {
  std::mutex mutex;  // guards the path and the hook table
  std::string path;
  std::map<int, Hook> hooks;
  int nextHook = 1;
  std::atomic<bool> hasHooks{false};

  std::string pidPart;  // "] [<pid>:"
  LineRing ring;
  std::atomic<bool> hasFile{false};
  // Drains the ring into the file; the file (rotation included) is touched
  // only under it.
  std::mutex drainMutex;
  std::shared_ptr<RotatingFile> file;
  std::string batch;
  int wakeFd = -1;  // eventfd: the log's thread has lines to write
  std::atomic<bool> wakeSent{false};
};

State& GetState() {
  static State* state = new State;  // never destroyed: threads may log during static teardown
  return *state;
}

// A batch goes to the file in pieces of at most this size, each ending with
// a whole line: the file rotates only between pieces, so each file still
// fills up to its size however far behind the drainer was.
constexpr std::size_t kPieceBytes = 256 * 1024;

// Batches the lines that are in, up to `until`, into the file. Drain lock held.
void DrainLocked(State& s, std::uint64_t until) {
  s.batch.clear();
  s.ring.Take(until, s.batch);
  for (std::size_t at = 0; s.file && at < s.batch.size();) {
    std::size_t end = s.batch.size();
    if (end - at > kPieceBytes) {
      const std::size_t lastLine = s.batch.rfind('\n', at + kPieceBytes - 1);
      if (lastLine != std::string::npos && lastLine >= at) end = lastLine + 1;
    }
    s.file->log(spdlog::details::log_msg(spdlog::string_view_t(), spdlog::level::info,
                                         spdlog::string_view_t(s.batch.data() + at, end - at)));
    at = end;
  }
  KeepSmall(s.batch);
}

void DrainAndFlush(State& s, std::uint64_t until) {
  std::lock_guard lock(s.drainMutex);
  DrainLocked(s, until);
  if (s.file) s.file->flush();
}

// The log's own thread writes the ring out once 64 KiB of lines are in it,
// and every 200 ms, which keeps the file current for its readers. So the disk
// sees one write per batch, and a thread that logs never does that write.
constexpr std::uint64_t kWakeBytes = 64 * 1024;

void WakeWriter(State& s) {
  if (!s.wakeSent.exchange(true, std::memory_order_acq_rel)) {
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(s.wakeFd, &one, sizeof(one));
  }
}

void StartWriter() {
  static std::once_flag once;
  std::call_once(once, [] {
    State& s = GetState();
    s.wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    s.ring.needRoom = [&s] { WakeWriter(s); };
    std::thread([&s] {
      ::pthread_setname_np(::pthread_self(), "tarn-log");
      for (;;) {
        pollfd p{s.wakeFd, POLLIN, 0};
        if (::poll(&p, 1, 200) > 0) {
          std::uint64_t count;
          [[maybe_unused]] ssize_t n = ::read(s.wakeFd, &count, sizeof(count));
        }
        s.wakeSent.store(false, std::memory_order_release);
        DrainAndFlush(s, s.ring.Head());
      }
    }).detach();
    // Lines still in the ring reach the file when the program exits.
    std::atexit([] {
      State& state = GetState();
      DrainAndFlush(state, state.ring.Head());
    });
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

namespace {

// A desktop program running as the person can't write the machine's log
// folder, which is root's: it logs where the person's programs keep state.
std::string PersonalLogDirectory() {
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  if (state && state[0] == '/') return std::string(state) + "/tarncore/log/";
  if (home && home[0] == '/') return std::string(home) + "/.local/state/tarncore/log/";
  return {};
}

}  // namespace

void Open(const std::string& baseName, int fileCount, int fileSizeMiB) {
  std::string dir = LogDirectory();
  if (!os::MakeDirectories(dir) || ::access(dir.c_str(), W_OK) != 0) {
    const std::string personal = PersonalLogDirectory();
    if (!personal.empty() && os::MakeDirectories(personal)) dir = personal;
  }
  const std::string path = dir + baseName + ".log";
  std::shared_ptr<RotatingFile> file;
  try {
    // Unbuffered: each batch the ring hands over is one write.
    spdlog::file_event_handlers handlers;
    handlers.after_open = [](const spdlog::filename_t&, std::FILE* f) { std::setvbuf(f, nullptr, _IONBF, 0); };
    file = std::make_shared<RotatingFile>(path, static_cast<std::size_t>(std::max(1, fileSizeMiB)) * 1024 * 1024,
                                          static_cast<std::size_t>(std::max(1, fileCount) - 1), false, handlers);
    file->set_formatter(std::make_unique<Verbatim>());
  } catch (const spdlog::spdlog_ex&) {
    return;  // no file: lines still reach the hooks
  }
  State& s = GetState();
  StartWriter();
  {
    // What was logged before goes to the file it was logged for.
    std::lock_guard lock(s.drainMutex);
    DrainLocked(s, s.ring.Head());
    if (s.file) s.file->flush();
    s.file = std::move(file);
    if (s.pidPart.empty()) s.pidPart = "] [" + std::to_string(::getpid()) + ":";
  }
  s.hasFile.store(true, std::memory_order_release);
  std::lock_guard lock(s.mutex);
  s.path = path;
}

void Write(Level level, std::string_view tag, std::string_view text) {
  if (!Enabled(level)) return;
  State& s = GetState();
  if (s.hasHooks.load(std::memory_order_acquire)) {
    Record record{level, std::string(tag), std::string(text)};
    std::lock_guard lock(s.mutex);
    for (auto& [id, hook] : s.hooks) hook(record);
  }
  if (!s.hasFile.load(std::memory_order_acquire)) return;
  Scratch* scratch = ThreadScratch();
  spdlog::memory_buf_t ownBuffer;
  LineFormat ownFormat;
  spdlog::memory_buf_t& line = scratch ? scratch->formatted : ownBuffer;
  line.clear();
  const spdlog::details::log_msg msg(spdlog::string_view_t(tag.data(), tag.size()), ToSpd(level),
                                     spdlog::string_view_t(text.data(), text.size()));
  (scratch ? scratch->format : ownFormat).Format(msg, s.pidPart, line);
  if (line.size() > LineRing::kMaxLine) {
    // Too long for the ring: written at once, after everything before it.
    std::lock_guard lock(s.drainMutex);
    DrainLocked(s, s.ring.Head());
    if (s.file) s.file->log(spdlog::details::log_msg(spdlog::string_view_t(), msg.level,
                                                     spdlog::string_view_t(line.data(), line.size())));
    if (level >= Level::Warn && s.file) s.file->flush();
  } else {
    const std::uint64_t end = s.ring.Put(line.data(), line.size());
    // Failures reach the disk at once.
    if (level >= Level::Warn) {
      DrainAndFlush(s, end);
    } else if (s.ring.Pending() >= kWakeBytes) {
      WakeWriter(s);
    }
  }
  if (scratch && scratch->formatted.capacity() > kKeptCapacity) scratch->formatted = spdlog::memory_buf_t();
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

Line& Line::AppendNull() {
  *stream_ << static_cast<const char*>(nullptr);  // what a stream does with a null text: it fails from here on
  return *this;
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
  tarn::log::State& s = tarn::log::GetState();
  tarn::log::DrainAndFlush(s, s.ring.Head());
}

bool TarnCreateDirbyLev(const std::string& path, int /*level*/) {
  return tarn::os::MakeDirectories(path);
}

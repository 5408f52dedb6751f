// The words on the pipes between TarnCoreService and the container. Inbound:
// lines written to the service's control FIFO, split by its line splitter and
// passed on in UTF-16LE, and raw bytes as any writer of the pipe may send
// them, each read by the container's real listener thread. Outbound: what the
// service makes of the container's output. And the exit handle's text on the
// container's command line.
//
// Input: one byte of chunk size for the FIFO's reads, then the bytes.
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "container/TarnContainerProcess.h"
#include "container/pipe_message.h"
#include "control_channel.h"
#include "fuzz_support.h"
#include "thread/ThreadManager.h"

namespace {

using tarn::fuzz::Check;
using Event = std::pair<uint32_t, uint32_t>;

constexpr std::size_t kReadSize = 4096;  // one read of the listener
constexpr uint32_t kSentinelType = 0xFFFFFFFF;

// The container's listener on a pipe of its own, for the whole run.
class Listener {
 public:
  Listener() {
    int fds[2];
    Check(::pipe(fds) == 0, "pipe");
    readEnd_ = fds[0];
    writeEnd_ = fds[1];
    TarnContainerProcess::SetEventHandlers({[this](uint32_t type, uint32_t session) {
                                              std::lock_guard lock(mutex_);
                                              events_.emplace_back(type, session);
                                              changed_.notify_all();
                                              return true;
                                            },
                                            nullptr});
    param_ = new VantrelThread::ThreadParam(&readEnd_, "TarnContainerProcess::Pipe_Listen");
    std::thread([p = param_] { TarnContainerProcess::Pipe_Listen(p); }).detach();
  }

  // Writes one message as one read of the listener.
  void Send(const std::string& bytes) {
    Check(::write(writeEnd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "pipe write");
    for (int queued = 1; queued > 0;) {
      Check(::ioctl(writeEnd_, FIONREAD, &queued) == 0, "FIONREAD");
      if (queued > 0) std::this_thread::yield();
    }
  }

  // The events the listener passed on for the messages sent since the last call.
  std::vector<Event> Take() {
    const uint32_t mark = ++sentinel_;
    Send(tarn::container::ToPipeBytes(tarn::container::NotifyWinEventText(kSentinelType, mark)));
    std::unique_lock lock(mutex_);
    Check(changed_.wait_for(lock, std::chrono::seconds(10),
                            [&] { return !events_.empty() && events_.back() == Event{kSentinelType, mark}; }),
          "the listener goes on after every message");
    events_.pop_back();
    return std::exchange(events_, {});
  }

 private:
  int readEnd_ = -1;
  int writeEnd_ = -1;
  VantrelThread::ThreadParam* param_ = nullptr;  // the thread outlives every input
  uint32_t sentinel_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

// What one read of these bytes should raise: the scan of the first read's
// worth, zero-ended, unless it gives nothing or the invalid pair.
std::optional<Event> Raised(const std::string& bytes) {
  std::u16string units((std::min(bytes.size(), kReadSize) + 1) / 2, u'\0');
  std::memcpy(units.data(), bytes.data(), std::min(bytes.size(), kReadSize));
  uint32_t type = 0, session = 0;
  if (!tarn::container::ScanNotifyWinEvent(units.c_str(), type, session)) return std::nullopt;
  if (type == 0 && session == 0) return std::nullopt;
  return Event{type, session};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (tarn::log::SetThreshold(tarn::log::Level::Off), true);
  static Listener listener;
  (void)quiet;
  if (size < 1) return 0;
  const std::size_t chunk = data[0] % 64 + 1;
  const std::string bytes(tarn::fuzz::Bytes(data + 1, size - 1));

  // The FIFO's lines do not depend on how its reads cut the stream.
  using tarn::service::ControlChannel;
  tarn::service::LineSplitter whole(ControlChannel::kMaxLine), pieces(ControlChannel::kMaxLine);
  const std::vector<std::string> lines = whole.Feed(bytes);
  std::vector<std::string> pieceLines;
  for (std::size_t at = 0; at < bytes.size(); at += chunk) {
    for (auto& line : pieces.Feed(std::string_view(bytes).substr(at, chunk))) pieceLines.push_back(std::move(line));
  }
  Check(lines == pieceLines, "lines do not depend on the reads");

  // The first two lines and the raw bytes go through the listener.
  std::vector<std::string> messages;
  for (const auto& line : lines) {
    Check(!line.empty() && line.find('\n') == std::string::npos, "a line is a non-empty line");
    const std::string message = tarn::container::ToPipeBytes(line);
    Check(message.size() <= kReadSize, "a line passed on fits one read of the container");
    if (messages.size() < 2) messages.push_back(message);
  }
  messages.push_back(bytes.substr(0, kReadSize));

  std::vector<Event> expected;
  for (const auto& message : messages) {
    if (message.empty()) continue;
    listener.Send(message);
    if (auto event = Raised(message)) {
      expected.push_back(*event);
      // A scanned event's own text scans to the same numbers.
      Check(Raised(tarn::container::ToPipeBytes(tarn::container::NotifyWinEventText(event->first, event->second))) ==
                event,
            "an event's text scans back to it");
    }
  }
  Check(listener.Take() == expected, "the listener passes on what one read holds");

  // Outbound: the status word the service looks for.
  const std::string text = tarn::container::FromPipeBytes(bytes);
  if (auto status = tarn::container::FindWorkStatus(text)) {
    Check(*status >= 0 && text.find(tarn::container::kWorkStatusWord) != std::string::npos, "a status is read");
  }
  // The command line: any text gives a value without harm; a handle's own text gives it back.
  tarn::container::ScanExitHandle(std::wstring(text.begin(), text.end()));
  int fd = 0;
  std::memcpy(&fd, data, std::min<std::size_t>(size, sizeof(fd)));
  if (fd >= 0) {
    const std::string handle = tarn::container::FormatExitHandle(fd);
    Check(tarn::container::ScanExitHandle(std::wstring(handle.begin(), handle.end())) == fd, "exit handle round trip");
  }
  return 0;
}

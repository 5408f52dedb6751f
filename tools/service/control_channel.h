#pragma once
// The service's control FIFO, <root>/run/tarncore/TarnCoreService.ctl (mode
// 0600). Every line written to it is one message for the container, passed on
// as it stands in UTF-16LE: a session event can be injected with
//
//   echo NotifyWinEvent5EventId2 > $TARNCORE_ROOT/run/tarncore/TarnCoreService.ctl
//
// The service does not check the text, so malformed messages reach the
// container as well, which is what tests of its listener need.
#include <string>
#include <string_view>
#include <vector>

namespace tarn::service {

// Splits a byte stream into lines. "\n" ends a line, a "\r" before it is
// dropped, empty lines are skipped, and a line longer than the limit is
// dropped whole (up to its end).
class LineSplitter {
 public:
  explicit LineSplitter(std::size_t maxLine) : maxLine_(maxLine) {}
  std::vector<std::string> Feed(std::string_view bytes);

 private:
  std::size_t maxLine_;
  std::string partial_;
  bool discarding_ = false;
};

class ControlChannel {
 public:
  // Longest line passed on: its UTF-16 form fits one read of the container (4096 bytes).
  static constexpr std::size_t kMaxLine = 2048;

  ControlChannel() : lines_(kMaxLine) {}
  ~ControlChannel();
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  static std::string DefaultPath();

  // Makes the FIFO (or reuses one) and opens it for reading without ever
  // seeing an end of file. False with errno set on failure.
  bool Open(const std::string& path);
  int fd() const { return fd_; }
  // Lines that have arrived since the last call.
  std::vector<std::string> ReadLines();
  // Closes and removes the FIFO.
  void Close();

 private:
  int fd_ = -1;
  std::string path_;
  LineSplitter lines_;
};

}  // namespace tarn::service

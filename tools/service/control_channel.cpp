#include "control_channel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/os/places.h"

namespace tarn::service {

std::vector<std::string> LineSplitter::Feed(std::string_view bytes) {
  std::vector<std::string> lines;
  for (char c : bytes) {
    if (c == '\n') {
      if (!discarding_) {
        if (!partial_.empty() && partial_.back() == '\r') partial_.pop_back();
        // A line of the limit and one more character without a '\r' is too long.
        if (!partial_.empty() && partial_.size() <= maxLine_) lines.push_back(std::move(partial_));
      }
      partial_.clear();
      discarding_ = false;
      continue;
    }
    if (discarding_) continue;
    if (partial_.size() >= maxLine_ + 1) {  // room for a '\r' before the end
      partial_.clear();
      discarding_ = true;
      continue;
    }
    partial_ += c;
  }
  return lines;
}

ControlChannel::~ControlChannel() { Close(); }

std::string ControlChannel::DefaultPath() { return os::RuntimeDir() + "/TarnCoreService.ctl"; }

bool ControlChannel::Open(const std::string& path) {
  Close();
  const auto slash = path.rfind('/');
  if (slash != std::string::npos) os::MakeDirectories(path.substr(0, slash));
  if (::mkfifo(path.c_str(), 0600) != 0 && errno != EEXIST) return false;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return false;
  if (!S_ISFIFO(st.st_mode)) {
    errno = EEXIST;
    return false;
  }
  // Read and write: the FIFO then has a writer for as long as it is open, so a
  // client that closes its end does not turn it into a stream of end-of-files.
  fd_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) return false;
  path_ = path;
  return true;
}

std::vector<std::string> ControlChannel::ReadLines() {
  std::vector<std::string> lines;
  if (fd_ < 0) return lines;
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd_, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    auto more = lines_.Feed(std::string_view(buf, static_cast<std::size_t>(n)));
    for (auto& line : more) lines.push_back(std::move(line));
  }
  return lines;
}

void ControlChannel::Close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  if (!path_.empty()) {
    ::unlink(path_.c_str());
    path_.clear();
  }
}

}  // namespace tarn::service

#include "platform/os/pinned_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tarn::os {

PinnedFile::PinnedFile(const std::string& path) : path_(path), readPath_(path) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) error_ = errno;
  if (fd_ >= 0) readPath_ = "/proc/self/fd/" + std::to_string(fd_);
}

PinnedFile::~PinnedFile() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace tarn::os

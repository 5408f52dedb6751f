#include "platform/appupdate/pinned_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::appupdate {

PinnedFile::PinnedFile(const std::string& path) : path_(path), readPath_(path) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ >= 0) readPath_ = "/proc/self/fd/" + std::to_string(fd_);
}

PinnedFile::~PinnedFile() {
  if (fd_ >= 0) ::close(fd_);
}

bool PinnedFile::SamePathTarget() const {
  struct stat opened {}, named {};
  if (fd_ < 0 || ::fstat(fd_, &opened) != 0 || ::stat(path_.c_str(), &named) != 0) return false;
  return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace tarn::appupdate

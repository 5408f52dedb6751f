#include "platform/os/named_mutex.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "platform/os/last_error.h"
#include "platform/os/places.h"

namespace tarn::os {

namespace {

std::string LocksDirectory() { return RuntimeDir() + "/locks"; }

// Programs of any user hold mutexes here (the privacy notice runs as the
// person at the desktop), so the folder is shared as /run/lock is. Only its
// owner can set the mode, and only the owner needs to.
void MakeLocksDirectory() {
  const std::string dir = LocksDirectory();
  MakeDirectories(dir);
  ::chmod(dir.c_str(), 01777);
}

}  // namespace

std::string NamedMutex::PathFor(const std::string& name) {
  std::string file = name;
  for (char& c : file) {
    if (c == '\\' || c == '/') c = '-';
  }
  return LocksDirectory() + "/" + file;
}

NamedMutex::~NamedMutex() {
  if (fd_ >= 0) ::close(fd_);  // closing drops the flock
}

std::unique_ptr<NamedMutex> NamedMutex::Create(const std::string& name) {
  MakeLocksDirectory();
  // flock needs no write access: a lock file another user made serves too.
  int fd = ::open(PathFor(name).c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    SetLastError(static_cast<std::uint32_t>(errno));
    return nullptr;
  }
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
    SetLastError(0);
    return std::unique_ptr<NamedMutex>(new NamedMutex(fd, true));
  }
  SetLastError(kErrorAlreadyExists);
  return std::unique_ptr<NamedMutex>(new NamedMutex(fd, false));
}

std::unique_ptr<NamedMutex> NamedMutex::Open(const std::string& name) {
  // The container looks before it starts a holder of another user, who can't
  // make the folder under the root-owned runtime folder itself.
  MakeLocksDirectory();
  int fd = ::open(PathFor(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    SetLastError(kErrorFileNotFound);
    return nullptr;
  }
  // A test lock on a description of our own: it fails exactly while someone holds the mutex.
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
    ::flock(fd, LOCK_UN);
    ::close(fd);
    SetLastError(kErrorFileNotFound);
    return nullptr;
  }
  if (errno != EWOULDBLOCK) {
    SetLastError(static_cast<std::uint32_t>(errno));
    ::close(fd);
    return nullptr;
  }
  return std::unique_ptr<NamedMutex>(new NamedMutex(fd, false));
}

void NamedMutex::Release() {
  if (owned_ && fd_ >= 0) ::flock(fd_, LOCK_UN);
  owned_ = false;
}

}  // namespace tarn::os

#pragma once
// Named mutexes between processes: a lock file run/tarncore/locks/<name>, with
// '\' written as '-' ("Global\VTFrameworkNoticeMutex" is
// "Global-VTFrameworkNoticeMutex"), held with flock by its owner. A mutex
// "exists" while someone holds the lock; the file alone means nothing.
#include <memory>
#include <string>

namespace tarn::os {

class NamedMutex {
 public:
  ~NamedMutex();
  NamedMutex(const NamedMutex&) = delete;
  NamedMutex& operator=(const NamedMutex&) = delete;

  // Makes the mutex and takes it. When another holder has it already, the
  // handle is still given, not owned, with kErrorAlreadyExists as last error.
  // Null when the lock file can't be made (errno as last error).
  static std::unique_ptr<NamedMutex> Create(const std::string& name);
  // Opens a mutex that exists now: non-null only when the lock file is there
  // and someone holds it. Otherwise null with kErrorFileNotFound.
  static std::unique_ptr<NamedMutex> Open(const std::string& name);

  // True when this handle holds the lock.
  bool owned() const { return owned_; }
  // Gives up the lock; the handle stays open.
  void Release();
  // The descriptor, as a handle value for log lines.
  int handle() const { return fd_; }

  // <run>/locks/<name with '\' and '/' as '-'>
  static std::string PathFor(const std::string& name);

 private:
  explicit NamedMutex(int fd, bool owned) : fd_(fd), owned_(owned) {}
  int fd_;
  bool owned_;
};

}  // namespace tarn::os

#include "platform/os/registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <vector>

#include "platform/os/places.h"
#include "platform/os/text.h"

namespace tarn::os {
namespace {

long ErrnoToWin(int err) {
  switch (err) {
    case ENOENT:
    case ENOTDIR: return kRegFileNotFound;
    case EACCES:
    case EPERM:
    case EROFS: return kRegAccessDenied;
    default: return 1;  // ERROR_INVALID_FUNCTION: anything else the file system refuses
  }
}

bool IsDirectory(const std::string& path, int* err) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    *err = errno;
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    *err = ENOTDIR;
    return false;
  }
  return true;
}

RegistryStore* g_override = nullptr;

}  // namespace

std::string FileRegistryStore::KeyDirectory(const std::string& keyPath) {
  std::string dir = RegistryRoot();
  std::string part;
  for (char c : keyPath) {
    if (c == '\\' || c == '/') {
      if (!part.empty()) dir += '/' + part;
      part.clear();
    } else {
      part += c;
    }
  }
  if (!part.empty()) dir += '/' + part;
  return dir;
}

long FileRegistryStore::OpenKey(const std::string& keyPath) {
  int err = 0;
  if (!IsDirectory(KeyDirectory(keyPath), &err)) return ErrnoToWin(err);
  if (::access(KeyDirectory(keyPath).c_str(), R_OK | X_OK) != 0) return ErrnoToWin(errno);
  return kRegSuccess;
}

long FileRegistryStore::GetValue(const std::string& keyPath, const std::string& name,
                                 std::string& out, std::size_t maxBytes) {
  const std::string dir = KeyDirectory(keyPath);
  int err = 0;
  if (!IsDirectory(dir, &err)) return ErrnoToWin(err);
  int fd = ::open((dir + '/' + name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return ErrnoToWin(errno);
  std::string value(maxBytes, '\0');
  std::size_t got = 0;
  while (got < maxBytes) {
    ssize_t n = ::read(fd, value.data() + got, maxBytes - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int e = errno;
      ::close(fd);
      return ErrnoToWin(e);
    }
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  ::close(fd);
  value.resize(got);
  // A REG_SZ read stops at its terminator, should a writer have stored one.
  if (auto nul = value.find('\0'); nul != std::string::npos) value.resize(nul);
  out = std::move(value);
  return kRegSuccess;
}

long FileRegistryStore::SetValue(const std::string& keyPath, const std::string& name,
                                 const std::string& value) {
  const std::string dir = KeyDirectory(keyPath);
  int err = 0;
  if (!IsDirectory(dir, &err)) return ErrnoToWin(err);
  if (name.empty() || name.find('/') != std::string::npos) return kRegFileNotFound;

  std::random_device rd;
  char suffix[32];
  std::snprintf(suffix, sizeof(suffix), ".tmp.%08x", rd());
  const std::string target = dir + '/' + name;
  const std::string temp = dir + "/." + name + suffix;
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return ErrnoToWin(errno);
  std::size_t done = 0;
  while (done < value.size()) {
    ssize_t n = ::write(fd, value.data() + done, value.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int e = errno;
      ::close(fd);
      ::unlink(temp.c_str());
      return ErrnoToWin(e);
    }
    done += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    int e = errno;
    ::unlink(temp.c_str());
    return ErrnoToWin(e);
  }
  if (::rename(temp.c_str(), target.c_str()) != 0) {
    int e = errno;
    ::unlink(temp.c_str());
    return ErrnoToWin(e);
  }
  return kRegSuccess;
}

RegistryStore& Registry() {
  static auto* files = new FileRegistryStore;  // never destroyed: late threads read it
  return g_override ? *g_override : *files;
}

void SetRegistryForTesting(RegistryStore* store) { g_override = store; }

}  // namespace tarn::os

long ReadVtidRegistryValue(const std::string& name, std::string& out) {
  return tarn::os::Registry().GetValue(tarn::os::kVtidKey, name, out,
                                       tarn::os::kRegValueReadLimit);
}

long ReadRegistryWideValue(const std::wstring& name, std::wstring& out) {
  std::string narrow;
  long rc = tarn::os::Registry().GetValue(tarn::os::kVtidKey, tarn::os::WideToUtf8(name), narrow,
                                          tarn::os::kRegValueReadLimit);
  if (rc == tarn::os::kRegSuccess) out = tarn::os::Utf8ToWide(narrow);
  return rc;
}

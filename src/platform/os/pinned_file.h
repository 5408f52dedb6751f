#pragma once
// A program or package held open from its test to its use: the tests read it
// through the open descriptor (/proc/self/fd/<n>), and the start execs that
// same descriptor, so a file swapped in at the path after the test is never
// the one that runs.
#include <string>

namespace tarn::os {

class PinnedFile {
 public:
  explicit PinnedFile(const std::string& path);
  ~PinnedFile();
  PinnedFile(const PinnedFile&) = delete;
  PinnedFile& operator=(const PinnedFile&) = delete;

  // The open descriptor (close-on-exec), or -1 when the file didn't open.
  int fd() const { return fd_; }
  // The open's errno when it failed, else 0.
  int error() const { return error_; }
  // The path it was opened by.
  const std::string& path() const { return path_; }
  // The open file's path for readers; the original path when it didn't open
  // (so the tests fail on it as on a missing file).
  const std::string& ReadPath() const { return readPath_; }

 private:
  std::string path_;
  std::string readPath_;
  int fd_ = -1;
  int error_ = 0;
};

}  // namespace tarn::os

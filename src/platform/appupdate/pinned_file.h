#pragma once
// A file held open between its test and its start: the tests read it through
// the open descriptor (/proc/self/fd/<n>), and SamePathTarget confirms just
// before the start that the path still names that same file, so a swap of the
// file after the test is refused.
#include <string>

namespace tarn::appupdate {

class PinnedFile {
 public:
  explicit PinnedFile(const std::string& path);
  ~PinnedFile();
  PinnedFile(const PinnedFile&) = delete;
  PinnedFile& operator=(const PinnedFile&) = delete;

  bool valid() const { return fd_ >= 0; }
  // The open file's path for readers; the original path when it didn't open
  // (so the tests fail on it as on a missing file).
  const std::string& ReadPath() const { return readPath_; }
  // The path names the opened file still (same device and inode).
  bool SamePathTarget() const;

 private:
  std::string path_;
  std::string readPath_;
  int fd_ = -1;
};

}  // namespace tarn::appupdate

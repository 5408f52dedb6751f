#pragma once
// A throw-away machine root: makes a temporary directory, points TARNCORE_ROOT
// at it for the test's lifetime, and removes it afterwards.
#include <string>
#include <string_view>

namespace tarn::test {

class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return path_; }
  // Absolute path of a place under the root.
  std::string At(std::string_view relative) const;
  // Writes a file under the root, creating its folders.
  void WriteFile(std::string_view relative, std::string_view content) const;
  // What a file under the root holds; empty when it can't be read.
  std::string ReadFile(std::string_view relative) const;
  void MakeDir(std::string_view relative) const;

 private:
  std::string path_;
  std::string saved_;
  bool hadSaved_ = false;
};

// What a file holds; empty when it can't be read.
std::string ReadText(const std::string& path);

// Where the platform's registry values lie under a machine root.
inline const std::string kVtid = "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/";

// Folder of the build tree (TARN_BUILD_DIR as ctest sets it), for helper programs.
std::string BuildDir();
std::string SourceDir();

}  // namespace tarn::test

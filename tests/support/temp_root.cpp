#include "support/temp_root.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;

namespace tarn::test {

TempRoot::TempRoot() {
  std::string tmpl = (fs::temp_directory_path() / "tarnroot.XXXXXX").string();
  if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
  if (const char* old = std::getenv("TARNCORE_ROOT")) {
    saved_ = old;
    hadSaved_ = true;
  }
  ::setenv("TARNCORE_ROOT", path_.c_str(), 1);
}

TempRoot::~TempRoot() {
  if (hadSaved_) {
    ::setenv("TARNCORE_ROOT", saved_.c_str(), 1);
  } else {
    ::unsetenv("TARNCORE_ROOT");
  }
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string TempRoot::At(std::string_view relative) const {
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  return path_ + "/" + std::string(relative);
}

void TempRoot::WriteFile(std::string_view relative, std::string_view content) const {
  fs::path p = At(relative);
  fs::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string TempRoot::ReadFile(std::string_view relative) const { return ReadText(At(relative)); }

void TempRoot::MakeDir(std::string_view relative) const { fs::create_directories(At(relative)); }

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string BuildDir() {
  const char* d = std::getenv("TARN_BUILD_DIR");
  return d ? d : TARN_DEFAULT_BUILD_DIR;
}

std::string SourceDir() {
  const char* d = std::getenv("TARN_SOURCE_DIR");
  return d ? d : TARN_DEFAULT_SOURCE_DIR;
}

}  // namespace tarn::test

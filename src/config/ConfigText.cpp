#include "config/ConfigText.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace tarn::config {

std::string ValueText(const Json::Value& value) {
  if (value.isNull()) return {};
  return value.asString();
}

bool ParseConfigFile(const std::string& path, Json::Value& root, bool& opened, int& openError,
                     std::string* errors) {
  errno = 0;
  std::ifstream in;
  // A directory opens as a stream here; where a file belongs it is a failed open.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    errno = EISDIR;
  } else {
    in.open(path, std::ios::binary);
  }
  opened = in.is_open();
  if (!opened) {
    openError = errno;
    return false;
  }
  openError = 0;
  Json::CharReaderBuilder builder;
  builder["collectComments"] = true;
  std::string found;
  bool parsed = false;
  try {
    parsed = Json::parseFromStream(builder, in, &root, &found);
  } catch (const Json::RuntimeError& e) {
    found = e.what();  // nested deeper than the reader goes: not a file it can read
  }
  if (errors) *errors = found;
  return parsed;
}

std::int32_t Stol32(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  int saved = errno;
  errno = 0;
  long long value = std::strtoll(begin, &end, 10);
  int err = errno;
  errno = saved;
  if (end == begin) throw std::invalid_argument("invalid stol argument");
  if (err == ERANGE || value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max()) {
    throw std::out_of_range("stol argument out of range");
  }
  return static_cast<std::int32_t>(value);
}

std::int32_t Atoi32(const std::string& text) {
  int saved = errno;
  long long value = std::strtoll(text.c_str(), nullptr, 10);
  errno = saved;
  if (value < std::numeric_limits<std::int32_t>::min()) return std::numeric_limits<std::int32_t>::min();
  if (value > std::numeric_limits<std::int32_t>::max()) return std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(value);
}

}  // namespace tarn::config

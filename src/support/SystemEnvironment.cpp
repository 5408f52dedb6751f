#include "support/SystemEnvironment.h"

#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/commonutil/de.h"
#include "platform/os/places.h"
#include "platform/os/text.h"

namespace {

// The debugger's channel: these lines stay out of the container's log, and
// standard error is where the service collects what a program says aside.
void OutputDebugString(const char* text) {
  const std::string line = std::string(text) + "\n";
  [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

// Room of the copy, with its terminator.
constexpr std::size_t kNameBuffer = 129;

}  // namespace

std::string SystemEnvironment::GetOSVersion() {
  const std::wstring value = tarn::os::Utf8ToWide(tarn::os::OperatingSystemName());
  if (value.empty()) {
    OutputDebugString("Get registry value fail(SystemEnvironment::GetOSVersion)");
    return {};
  }
  char* narrow = DE::WcharToChar(value.c_str());
  if (narrow == nullptr) return {};
  char buffer[kNameBuffer] = {};
  // A name that doesn't fit leaves the buffer empty, as the bounded copy does.
  if (std::strlen(narrow) > kNameBuffer - 1) {
    OutputDebugString("strcpy_s fail(SystemEnvironment::GetOSVersion)");
  } else {
    std::strcpy(buffer, narrow);
  }
  delete[] narrow;
  return buffer;
}

#include "platform/os/last_error.h"

namespace tarn::os {

namespace {
thread_local std::uint32_t t_lastError = 0;
}

std::uint32_t GetLastError() noexcept { return t_lastError; }
void SetLastError(std::uint32_t error) noexcept { t_lastError = error; }

std::int32_t HresultFromErrno(int error) noexcept {
  return static_cast<std::int32_t>(0x80070000u | (static_cast<std::uint32_t>(error) & 0xFFFFu));
}

}  // namespace tarn::os

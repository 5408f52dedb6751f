#include "platform/os/last_error.h"

namespace tarn::os {

namespace {
thread_local std::uint32_t t_lastError = 0;
}

std::uint32_t GetLastError() noexcept { return t_lastError; }
void SetLastError(std::uint32_t error) noexcept { t_lastError = error; }

}  // namespace tarn::os

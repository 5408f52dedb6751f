#pragma once
// The per-thread "last error" that the system's callers read after a failed
// call, and the error and wait numbers they compare with. Failures that come
// from a Linux call carry its errno; the rest use the Windows numbers the
// callers test for.
#include <cstddef>
#include <cstdint>

namespace tarn::os {

std::uint32_t GetLastError() noexcept;
void SetLastError(std::uint32_t error) noexcept;

// An errno in the shape of HRESULT_FROM_WIN32, as results of the system's COM
// calls show in its log lines.
std::int32_t HresultFromErrno(int error) noexcept;

// Results of the waits.
constexpr std::uint32_t kWaitObject0 = 0;
constexpr std::uint32_t kWaitTimeout = 258;
constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;
// A wait without a time limit.
constexpr std::uint32_t kInfinite = 0xFFFFFFFF;
// More handles than this in one wait fail at once.
constexpr std::size_t kMaximumWaitObjects = 64;

// Windows error numbers that callers compare with.
constexpr std::uint32_t kErrorOperationAborted = 995;  // a cancelled read
constexpr std::uint32_t kErrorNotFound = 1168;         // nothing to cancel
constexpr std::uint32_t kErrorInvalidThreadId = 1444;  // no queue for that thread id
constexpr std::uint32_t kErrorAlreadyExists = 183;     // a named object existed already
constexpr std::uint32_t kErrorFileNotFound = 2;
constexpr std::uint32_t kErrorInvalidTimerId = 1402;

}  // namespace tarn::os

#include "platform/os/random.h"

#include <sys/random.h>

#include <cerrno>

#include "platform/os/last_error.h"

namespace tarn::os {

bool CryptGenRandom(std::uint32_t length, std::uint8_t* buffer) {
  if (!buffer && length != 0) {
    SetLastError(EINVAL);
    return false;
  }
  std::size_t done = 0;
  while (done < length) {
    ssize_t n = ::getrandom(buffer + done, length - done, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      SetLastError(static_cast<std::uint32_t>(errno));
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace tarn::os

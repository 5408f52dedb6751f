#pragma once
// The system's random source (getrandom), in the shape of CryptGenRandom.
#include <cstddef>
#include <cstdint>

namespace tarn::os {

// Fills the buffer with random bytes; false with the errno as last error.
bool CryptGenRandom(std::uint32_t length, std::uint8_t* buffer);

}  // namespace tarn::os

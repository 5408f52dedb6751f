#include "config/VersionAtLeast.h"

#include <cstddef>
#include <cstdint>

namespace {

// Reads the field at pos and steps past its '.'; 0 once the text has run out.
std::int32_t NextField(const std::string& text, std::size_t& pos) {
  std::uint32_t value = 0;  // wraps like the 32-bit original, without signed overflow
  while (pos < text.size() && text[pos] != '.') {
    value = value * 10u + static_cast<std::uint32_t>(static_cast<int>(text[pos]) - '0');
    ++pos;
  }
  if (pos < text.size()) ++pos;
  return static_cast<std::int32_t>(value);
}

}  // namespace

bool VersionAtLeast(const std::string& a, const std::string& b) {
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < a.size() || j < b.size()) {
    std::int32_t fa = NextField(a, i);
    std::int32_t fb = NextField(b, j);
    if (fa > fb) return true;
    if (fa < fb) return false;
  }
  return true;
}

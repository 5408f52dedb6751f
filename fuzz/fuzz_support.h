#pragma once
// What the fuzz targets share: a check that ends the run as a finding, logs
// turned off, and a machine root of their own for the files a reader takes.
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/log/tarn_log.h"
#include "support/temp_root.h"

namespace tarn::fuzz {

// A broken expectation is a finding: libFuzzer keeps the input that did it.
inline void Check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

// A temporary TARNCORE_ROOT for the whole run, with logging off; removed at exit.
inline const tarn::test::TempRoot& Machine() {
  static const tarn::test::TempRoot* root = [] {
    tarn::log::SetThreshold(tarn::log::Level::Off);
    static tarn::test::TempRoot made;
    return &made;
  }();
  return *root;
}

inline std::string_view Bytes(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace tarn::fuzz

#pragma once
// Files, keys and programs for the signature tests; children are started and
// reaped with the integration tests' helpers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "integration/programs.h"
#include "platform/security/signature.h"
#include "support/run_program.h"
#include "support/temp_root.h"

namespace tarn::test {

inline void WriteBytes(const std::string& path, const std::string& bytes, unsigned mode = 0644) {
  if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes)) throw std::runtime_error("cannot write " + path);
  ::chmod(path.c_str(), mode);
}

inline void CopyExecutable(const std::string& from, const std::string& to) { WriteBytes(to, ReadText(from), 0755); }

inline security::SigningKey NewKey() {
  auto key = security::SigningKey::Generate();
  if (!key) throw std::runtime_error("key generation failed");
  return std::move(*key);
}

// A machine root that trusts a maker key and a platform key.
class TrustedKeysTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(security::InstallTrustedKey(maker.Public(), security::KeyKind::kMaker, "maker"));
    ASSERT_TRUE(security::InstallTrustedKey(platform.Public(), security::KeyKind::kPlatform, "platform"));
  }
  TempRoot root;
  security::SigningKey maker = NewKey(), platform = NewKey();
};

}  // namespace tarn::test

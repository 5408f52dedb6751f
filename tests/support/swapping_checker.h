#pragma once
// A signature checker that verifies for real and then, the first time it is
// asked about an open descriptor (/proc/self/fd/<n>), puts another file in
// place of `target`: what gets loaded or run must still be what was verified.
#include <filesystem>
#include <string>

#include "platform/security/security.h"

namespace tarn::test {

class SwappingChecker : public security::FileSignatureChecker {
 public:
  SwappingChecker(std::string target, std::string replacement)
      : target_(std::move(target)), replacement_(std::move(replacement)) {}
  bool VerifyEmbedded(const std::string& path) override {
    bool ok = FileSignatureChecker::VerifyEmbedded(path);
    if (armed && path.rfind("/proc/self/fd/", 0) == 0) {
      namespace fs = std::filesystem;
      fs::copy_file(replacement_, target_ + ".new", fs::copy_options::overwrite_existing);
      fs::rename(target_ + ".new", target_);
      armed = false;
    }
    return ok;
  }
  bool armed = true;

 private:
  std::string target_, replacement_;
};

}  // namespace tarn::test

#pragma once
// A machine root that trusts the build's development key, with a package
// folder for signed test services.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "platform/security/signature.h"
#include "support/temp_root.h"

namespace zbrf_test {

class ServiceRoot {
 public:
  ServiceRoot() {
    auto key = tarn::security::ReadPublicKeyFile(TARN_DEV_PUBLIC_KEY);
    if (!key || !tarn::security::InstallTrustedKey(*key, tarn::security::KeyKind::kMaker, "tarn-dev"))
      throw std::runtime_error("cannot trust the development key at " TARN_DEV_PUBLIC_KEY);
    root_.MakeDir("opt/tarn/kits/com.test.service");
  }
  const tarn::test::TempRoot& root() const { return root_; }
  std::string PackageDir() const { return root_.At("opt/tarn/kits/com.test.service"); }
  // Copies a built file into the package folder under `name`; returns its path.
  std::string Install(const std::string& builtFile, const std::string& name) const {
    std::filesystem::copy_file(builtFile, PackageDir() + "/" + name,
                               std::filesystem::copy_options::overwrite_existing);
    return PackageDir() + "/" + name;
  }
  // Writes the package's ServiceInfo.json; returns its path.
  std::string WriteServiceInfo(const std::string& json) const {
    std::ofstream(PackageDir() + "/ServiceInfo.json", std::ios::trunc) << json;
    return PackageDir() + "/ServiceInfo.json";
  }

 private:
  tarn::test::TempRoot root_;
};

// Cuts the signature trailer off a file.
inline void StripSignature(const std::string& path) {
  const auto size = std::filesystem::file_size(path);
  ASSERT_GT(size, tarn::security::kTrailerSize);
  std::filesystem::resize_file(path, size - tarn::security::kTrailerSize);
}

}  // namespace zbrf_test

#include "zbrf_test_env.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/security/signature.h"

namespace fs = std::filesystem;

namespace zbrf_test {

ServiceRoot::ServiceRoot() {
  auto key = tarn::security::ReadPublicKeyFile(TARN_DEV_PUBLIC_KEY);
  if (!key || !tarn::security::InstallTrustedKey(*key, tarn::security::KeyKind::kMaker, "tarn-dev"))
    throw std::runtime_error("cannot trust the development key at " TARN_DEV_PUBLIC_KEY);
  root_.MakeDir("opt/tarn/kits/com.test.service");
}

std::string ServiceRoot::Install(const std::string& builtFile, const std::string& name) const {
  const std::string target = PackageDir() + "/" + name;
  fs::copy_file(builtFile, target, fs::copy_options::overwrite_existing);
  return target;
}

std::string ServiceRoot::WriteServiceInfo(const std::string& json) const {
  const std::string path = PackageDir() + "/ServiceInfo.json";
  std::ofstream(path, std::ios::trunc) << json;
  return path;
}

void StripSignature(const std::string& path) {
  const auto size = fs::file_size(path);
  ASSERT_GT(size, tarn::security::kTrailerSize);
  fs::resize_file(path, size - tarn::security::kTrailerSize);
}

}  // namespace zbrf_test

#pragma once
// A machine root that trusts the build's development key, with a package
// folder for signed test services.
#include <string>

#include "support/temp_root.h"

namespace zbrf_test {

class ServiceRoot {
 public:
  ServiceRoot();
  const tarn::test::TempRoot& root() const { return root_; }
  std::string PackageDir() const { return root_.At("opt/tarn/kits/com.test.service"); }
  // Copies a built file into the package folder under `name`; returns its path.
  std::string Install(const std::string& builtFile, const std::string& name) const;
  // Writes the package's ServiceInfo.json; returns its path.
  std::string WriteServiceInfo(const std::string& json) const;

 private:
  tarn::test::TempRoot root_;
};

// Cuts the signature trailer off a file.
void StripSignature(const std::string& path);

}  // namespace zbrf_test

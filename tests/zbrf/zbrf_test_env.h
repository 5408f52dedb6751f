#pragma once
// A machine root that trusts the build's development key, and a package
// folder in it holding signed test services.
#include <memory>
#include <string>

#include "support/temp_root.h"

namespace zbrf_test {

class ServiceRoot {
 public:
  ServiceRoot();
  const tarn::test::TempRoot& root() const { return root_; }
  // Folder of the package, with no trailing '/'.
  std::string PackageDir() const;
  // Copies a built file into the package folder under `name`.
  std::string Install(const std::string& builtFile, const std::string& name) const;
  // Writes the package's ServiceInfo.json; returns its path.
  std::string WriteServiceInfo(const std::string& json) const;

 private:
  tarn::test::TempRoot root_;
};

// Copy of a file without its signature trailer.
void StripSignature(const std::string& path);

}  // namespace zbrf_test

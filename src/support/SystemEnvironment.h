#pragma once
// Facts about the machine the container decides on.
#include <string>

class SystemEnvironment {
 public:
  // The operating system's product name (PRETTY_NAME of os-release); empty,
  // with a line on standard error, when there is none.
  static std::string GetOSVersion();
};

#include "platform/os/places.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace tarn::os {

std::string MachineRoot() {
  const char* root = std::getenv("TARNCORE_ROOT");
  std::string r = root ? root : "";
  while (!r.empty() && r.back() == '/') r.pop_back();
  return r;
}

std::string MachinePath(std::string_view relative) {
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  std::string path = MachineRoot();
  path += '/';
  path += relative;
  return path;
}

std::string InstallDirectory() {
  char buf[4096];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return {};
  std::string path(buf, static_cast<size_t>(n));
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  return path.substr(0, slash + 1);
}

std::string CommonAppDataPath() { return MachinePath("var/lib"); }
std::string RegistryRoot() { return MachinePath("etc/tarncore/registry/HKEY_LOCAL_MACHINE"); }
std::string RuntimeDir() { return MachinePath("run/tarncore"); }
std::string TrustedKeysDir() { return MachinePath("etc/tarncore/trusted-keys"); }
std::string FirewallDir() { return MachinePath("etc/tarncore/firewall.d"); }

std::string OperatingSystemName() {
  std::ifstream in(MachinePath("etc/os-release"));
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
    std::string value = line.substr(12);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    return value;
  }
  return {};
}

bool MakeDirectories(const std::string& path) {
  // Each folder made here is set to 0755 itself: the mode of mkdir is cut by
  // whatever umask the process was started with.
  std::error_code ec;
  std::filesystem::path made;
  for (const auto& part : std::filesystem::path(path)) {
    made /= part;
    if (std::filesystem::create_directory(made, ec)) {
      std::filesystem::permissions(made, std::filesystem::perms(0755), ec);
    }
  }
  return std::filesystem::is_directory(path, ec);
}

}  // namespace tarn::os

#include "config/ConfigPlatform.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>

#include "platform/os/places.h"

namespace tarn::config {
namespace {

std::mutex g_installMutex;
std::string& g_installOverride = *new std::string;  // read by threads until the process ends

ParentServiceControl g_parentControl;
std::atomic<ServiceControl*> g_serviceControl{&g_parentControl};
std::atomic<ServiceInfoRegistrar*> g_registrar{nullptr};

constexpr const char* kServiceName = "TarnCoreService";

std::string BaseName(std::string path) {
  // A replaced executable shows as "<path> (deleted)": still the same program.
  static const std::string kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() &&
      path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    path.resize(path.size() - kDeleted.size());
  }
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string InstallDirectory() {
  {
    std::lock_guard<std::mutex> lock(g_installMutex);
    if (!g_installOverride.empty()) return g_installOverride;
  }
  return tarn::os::InstallDirectory();
}

void SetInstallDirectoryForTesting(const std::string& directory) {
  std::lock_guard<std::mutex> lock(g_installMutex);
  g_installOverride = directory;
  if (!g_installOverride.empty() && g_installOverride.back() != '/') g_installOverride += '/';
}

bool IsTarnCoreServiceProcess(pid_t pid) {
  if (pid <= 0) return false;
  const std::string proc = "/proc/" + std::to_string(pid);
  char buf[4096];
  ssize_t n = ::readlink((proc + "/exe").c_str(), buf, sizeof(buf) - 1);
  if (n > 0) return BaseName(std::string(buf, static_cast<size_t>(n))) == kServiceName;
  // Another user's process hides its exe link; its command name still shows
  // (cut at 15 characters, which "TarnCoreService" exactly fills).
  std::ifstream comm(proc + "/comm");
  std::string name;
  if (!std::getline(comm, name)) return false;
  return name == kServiceName;
}

void ParentServiceControl::StopTarnCoreService() {
  pid_t parent = ::getppid();
  if (parent <= 1) return;
  // Pin the parent before judging it, so the signal can't reach a process that
  // took over its pid after it died.
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, parent, 0));
  if (pidfd < 0) return;
  if (::getppid() == parent && IsTarnCoreServiceProcess(parent)) {
    ::syscall(SYS_pidfd_send_signal, pidfd, SIGTERM, nullptr, 0);
  }
  ::close(pidfd);
}

ServiceControl& GetServiceControl() { return *g_serviceControl.load(); }

void SetServiceControlForTesting(ServiceControl* control) {
  g_serviceControl.store(control ? control : &g_parentControl);
}

void SetServiceInfoRegistrar(ServiceInfoRegistrar* registrar) { g_registrar.store(registrar); }
ServiceInfoRegistrar* GetServiceInfoRegistrar() { return g_registrar.load(); }

}  // namespace tarn::config

void StopTarnCoreService() { tarn::config::GetServiceControl().StopTarnCoreService(); }

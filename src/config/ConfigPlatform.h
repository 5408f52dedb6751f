#pragma once
// What the configuration needs of the machine, each behind a seam that tests
// (and the process's wiring) can replace.
#include <string>
#include <sys/types.h>

namespace tarn::config {

// Install directory with its trailing '/': the executable's folder unless a
// test has pointed it elsewhere (a test can't move its own executable).
std::string InstallDirectory();
// An empty text restores the executable's folder.
void SetInstallDirectoryForTesting(const std::string& directory);

// Ends the platform's service; asynchronous, returns at once.
class ServiceControl {
 public:
  virtual ~ServiceControl() = default;
  virtual void StopTarnCoreService() = 0;
};

// The service supervises the container as its parent: stopping it means a
// SIGTERM to the parent process, and only when that parent is TarnCoreService.
class ParentServiceControl : public ServiceControl {
 public:
  void StopTarnCoreService() override;
};

// True when pid runs the executable TarnCoreService.
bool IsTarnCoreServiceProcess(pid_t pid);

ServiceControl& GetServiceControl();
// nullptr restores ParentServiceControl.
void SetServiceControlForTesting(ServiceControl* control);

// The service framework's registration of a package's ServiceInfo.json.
class ServiceInfoRegistrar {
 public:
  virtual ~ServiceInfoRegistrar() = default;
  virtual bool RegisterServiceInfo(const std::string& path) = 0;
};

// Installed by whoever brings up the service framework; without one, a
// registration is refused (false).
void SetServiceInfoRegistrar(ServiceInfoRegistrar* registrar);
ServiceInfoRegistrar* GetServiceInfoRegistrar();

}  // namespace tarn::config

// Ends the service that hosts this container; the container's exit follows
// from the service's stop.
void StopTarnCoreService();

#pragma once
// What the framework handlers ask of the subsystems around them: the update
// state, the platform upgrade check, the broadcasts, the kit re-initialisation,
// the event reporter and the address book. The defaults call the process's
// singletons; tests install their own to watch the order of the calls.
#include <string>

#include "pipeline/Records.h"

namespace tarn::framework {

class FrameworkServices {
 public:
  virtual ~FrameworkServices() = default;

  // KitStoreManager.
  virtual bool IsUpdating();
  virtual bool StartSelfUpdate(ResponseStatus& status, const std::string& sdkVersion);
  virtual void CompleteUpdate();
  virtual bool ShowScrollAndUpdate();
  // UpgradeManager::HasNewVersion.
  virtual bool HasNewVersion();
  // ServerManager's broadcasts.
  virtual void SendUserConfirmBroadcast(int isUserAgree);
  virtual void SendServiceStartBroadcast();
  virtual void SendUpdateFailedBroadcast(const std::string& result);
  // KitManagerApi::InitKitsForUpdate.
  virtual bool InitKitsForUpdate();
  // EvManager: keeps a client's report text for the next flush when sharing is
  // on, drops it otherwise.
  virtual void QueueClientReport(const std::string& body);
  // FrameworkEvReportToFile: one record for the local record file.
  virtual void ReportToFile(const std::string& data);
  // UrlLoader::GetServiceUrl.
  virtual bool GetServiceUrl(const std::string& serviceName, std::string& url, const std::string& key);
};

// The installed implementation, or the defaults.
FrameworkServices& Services();
// Not owned; nullptr restores the defaults.
void SetFrameworkServices(FrameworkServices* services);

}  // namespace tarn::framework

#include "framework/FrameworkServices.h"

#include <atomic>

#include "analytics/EvManager.h"
#include "kit/KitManagerApi.h"
#include "pipeline/ServerManager.h"
#include "platform/commonutil/urlloader.h"
#include "platform/ev/tarncore_ev.h"
#include "update/KitStoreManager.h"
#include "update/UpgradeManager.h"

namespace tarn::framework {

namespace {

std::atomic<FrameworkServices*> g_services{nullptr};

FrameworkServices& Defaults() {
  static auto* services = new FrameworkServices;  // request threads may outlive static teardown
  return *services;
}

}  // namespace

bool FrameworkServices::IsUpdating() { return KitStoreManager::GetInstance().IsUpdating(); }

bool FrameworkServices::StartSelfUpdate(ResponseStatus& status, const std::string& sdkVersion) {
  return KitStoreManager::GetInstance().StartSelfUpdate(status, sdkVersion);
}

void FrameworkServices::CompleteUpdate() { KitStoreManager::GetInstance().CompleteUpdate(); }

bool FrameworkServices::ShowScrollAndUpdate() { return KitStoreManager::GetInstance().ShowScrollAndUpdate(); }

bool FrameworkServices::HasNewVersion() { return UpgradeManager::GetInstance().HasNewVersion(); }

void FrameworkServices::SendUserConfirmBroadcast(int isUserAgree) {
  ServerManager::GetInstance().SendUserConfirmBroadcast(isUserAgree);
}

void FrameworkServices::SendServiceStartBroadcast() { ServerManager::GetInstance().SendServiceStartBroadcast(); }

void FrameworkServices::SendUpdateFailedBroadcast(const std::string& result) {
  ServerManager::GetInstance().SendUpdateFailedBroadcast(result);
}

bool FrameworkServices::InitKitsForUpdate() { return KitManagerApi::GetInstance().InitKitsForUpdate(); }

void FrameworkServices::QueueClientReport(const std::string& body) { EvManager::GetInstance().RecordReport(body); }

void FrameworkServices::ReportToFile(const std::string& data) { FrameworkEvReportToFile(data.c_str()); }

bool FrameworkServices::GetServiceUrl(const std::string& serviceName, std::string& url, const std::string& key) {
  return UrlLoader::GetServiceUrl(serviceName, url, key);
}

FrameworkServices& Services() {
  FrameworkServices* services = g_services.load(std::memory_order_acquire);
  return services ? *services : Defaults();
}

void SetFrameworkServices(FrameworkServices* services) {
  g_services.store(services, std::memory_order_release);
}

}  // namespace tarn::framework

#include "framework/FrameworkKitAPI.h"

#include <memory>

#include "config/ConfigManager.h"
#include "framework/FrameworkHandlers.h"
#include "framework/FrameworkServices.h"
#include "platform/log/tarn_log.h"

FrameworkKitAPI& FrameworkKitAPI::GetInstance() {
  static FrameworkKitAPI instance;
  return instance;
}

FrameworkKitAPI::~FrameworkKitAPI() { ClearForTesting(); }

void FrameworkKitAPI::Register(const std::string& uri, FrameworkReqHandlle* handler) {
  auto api = std::make_shared<KitApiDetailInfo>();
  api->uri = uri;
  api->apiName = uri;
  api->apiLevel = "1";
  api->kitName = "FRAMEWORK";
  api->version = kFrameworkVersion;
  api->invokeType = "FRAMEWORK";
  api->packageName = "com.vantrel.framework";
  ConfigManager::GetInstance().kitApiDispathMap[uri] = api;
  handlers_[uri] = handler;
}

bool FrameworkKitAPI::Invoke(const std::string& uri, ServerResCallBack* callback,
                             const ConvertedRequest& request, ResponseStatus& status) {
  CLOGD("FrameworkKitAPI::Invoke", "FrameworkKitAPI.Invoke start.");
  auto found = handlers_.find(uri);
  if (found != handlers_.end() && found->second != nullptr) {
    found->second->Excute(uri, callback, request, status);
  } else {
    // The status stays "0": such a request gets no answer at all.
    CLOGE("FrameworkKitAPI::Invoke", "uri: " << uri << " is not supported");
  }
  CLOGD("FrameworkKitAPI::Invoke", "FrameworkKitAPI.Invoke end.");
  return true;
}

void FrameworkKitAPI::RegisterAll() {
  Register("Framework.Updatekit", new UpdateKitReqHandler);
  Register("Framework.GetForceUpdate", new ForceUpdateKitReqHandler);
  Register("Framework.CheckPermission", new CheckPermissionReqHandler);
  Register("Framework.CheckPermissionList", new CheckPermissionListReqHandler);
  Register("Framework.UpdatekitResult", new UpdateKitResultReqHandler);
  Register("Framework.EVReport", new EvReportHandler);
  Register("Framework.ShowServiceDialog", new ServiceDialogReqHandler);
  Register("Framework.EDRRequest", new EdrReqHandler);
  Register("Framework.SetRegValue", new RegSettingReqHandler);
  Register("Framework.NoticeEvReport", new NoticeEvReportReqHandler);
  Register("Framework.VerifyMessage", new VerifyMessageReqHandler);
}

FrameworkReqHandlle* FrameworkKitAPI::Find(const std::string& uri) const {
  auto found = handlers_.find(uri);
  return found == handlers_.end() ? nullptr : found->second;
}

void FrameworkKitAPI::ClearForTesting() {
  for (auto& entry : handlers_) delete entry.second;
  handlers_.clear();
}

namespace tarn::framework {

bool FrameworkKitHooks::IsUpdating() { return Services().IsUpdating(); }

bool FrameworkKitHooks::HasNewVersion() { return Services().HasNewVersion(); }

void FrameworkKitHooks::RegisterFrameworkHandlers() { FrameworkKitAPI::GetInstance().RegisterAll(); }

bool FrameworkKitHooks::FrameworkInvoke(const std::string& uri, ServerResCallBack* item,
                                        ConvertedRequest& request, ResponseStatus& status) {
  return FrameworkKitAPI::GetInstance().Invoke(uri, item, request, status);
}

}  // namespace tarn::framework

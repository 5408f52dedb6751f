#include "container/ContainerRequestGates.h"

#include <mutex>

#include "config/ConfigManager.h"
#include "analytics/EvManager.h"
#include "kit/KitManagerApi.h"
#include "update/UpdateNotify.h"

bool ContainerRequestGates::IsInitComplete() { return KitManagerApi::GetInstance().isInitComplete; }

void ContainerRequestGates::Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* callback,
                                   ResponseStatus& status) {
  KitManagerApi::GetInstance().Invoke(header, request, callback, status);
}

bool ContainerRequestGates::VerifyEnabled() { return ConfigManager::GetInstance().verifyEnabled; }

void ContainerRequestGates::RecordApiCall(ServerResCallBack* callback, const std::string& direction) {
  EvManager::GetInstance().RecordApiCall(callback, direction);
}

void ContainerRequestGates::GetNotifyMsg(const std::string& action, int isUserAgree,
                                         std::string& out) {
  tarn::update::GetNotifyMsg(action, isUserAgree, out);
}

void ContainerRequestGates::GetUpdateKitResultMsg(const std::string& result, std::string& out) {
  tarn::update::GetUpdateKitResultMsg(result, out);
}

void ContainerRequestGates::InstallForProcess() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Request threads may still be in a gate while statics are destroyed at
    // exit, so the gates are never destroyed.
    RequestGates::Install(new ContainerRequestGates);
  });
}

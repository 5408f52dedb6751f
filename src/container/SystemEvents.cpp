#include "container/SystemEvents.h"

#include <algorithm>
#include <cctype>

#include "config/ConfigManager.h"
#include "kit/KitManagerApi.h"
#include "pipeline/Records.h"
#include "platform/log/tarn_log.h"
#include "platform/os/clock.h"
#include "update/UpgradeManager.h"

namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

void NotifytoKit(const std::string& eventName, const std::string& first, const std::string& second) {
  // The map is read without a lock, as the refresh that rewrites it is rare.
  for (const auto& [uri, detail] : ConfigManager::GetInstance().kitApiDispathMap) {
    const std::string uriTemp = Lower(uri);
    CLOGD("NotifytoKit", "NotifytoKit uriTemp " << uriTemp);
    if (!detail) {
      CLOGE("NotifytoKit", "kitApiDetailInfoTemp nullptr");
      continue;
    }
    const std::string fullApiName = Lower(detail->kitName + "." + eventName);
    CLOGD("NotifytoKit", "NotifytoKit fullApiName " << fullApiName);
    if (uriTemp != fullApiName) continue;

    ConvertedRequest request;
    request.api_name = uriTemp;
    request.header = first;
    request.body = second;
    ResponseStatus status;
    KitManagerApi::GetInstance().NotifyWinEventToKit(request, status);
    if (status.status_code != "0") CLOGE("NotifytoKit", "apiName " << uriTemp << "Invoke failed.");
  }
}

bool NotifyWinEventToKit(std::uint32_t eventType, std::uint32_t sessionId) {
  const std::string type = std::to_string(eventType);
  const std::string session = std::to_string(sessionId);
  CLOGI("NotifyWinEventToKit",
        "NotifyWinEventToKit start. strEventType" << type << "strSessionId " << session);
  while (!KitManagerApi::GetInstance().isInitComplete) tarn::os::Sleep(100);
  NotifytoKit("OnWinSessionChanged", type, session);
  CLOGI("NotifyWinEventToKit", "NotifyWinEventToKit end. ");
  return true;
}

bool NotifyNetworkChangeToKit(std::int32_t status) {
  const std::string text = std::to_string(status);
  CLOGI("NotifyNetworkChangeToKit", "NotifyNetworkChangeToKit start. Network status" << text);
  NotifytoKit("OnWinNetworkChanged", text, "");
  CLOGI("NotifyNetworkChangeToKit", "NotifyNetworkChangeToKit end. ");
  return true;
}

void NetworkConnectForUpdate() {
  UpgradeManager::GetInstance().OnNetworkConnected();
  auto& config = ConfigManager::GetInstance();
  if (!config.configCheckDone) {
    CLOGI("NetworkConnectForUpdate", "Check update not success after startup 1 minutes, check it now.");
    config.configCheckDone = true;
    if (config.configEvent) config.configEvent->Set();
  }
}

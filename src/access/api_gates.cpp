#include "access/api_gates.h"

#include <algorithm>
#include <cctype>

#include "access/scope_proxy.h"
#include "platform/log/tarn_log.h"
#include "platform/os/places.h"
#include "platform/security/security.h"

namespace tarn::access {

bool KitApiGates::CheckApiPermission(bool isTarnCoreRequest, const std::string& uri, const RequestHeader& header,
                                     const ApiInfoLookup& lookup, ResponseStatus& status) {
  static constexpr const char* kWhere = "KitManagerApi::CheckApiPermission";
  if (isTarnCoreRequest) {
    CLOGI(kWhere, "TarnCore request, no need check API permission.");
    return true;
  }
  const ApiPermissionInfo info = lookup ? lookup() : ApiPermissionInfo{};
  if (info.apiName.empty()) {
    CLOGE(kWhere, "uri is not supported. uri = " << uri);
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    return false;
  }
  if (info.permission.empty() || info.permission == kNoPermissionNeeded) {
    CLOGD(kWhere, "no need to check permission.");
    return true;
  }
  if (ScopeProxy::Instance().CheckApiPermission(header.client_id, info.permission, info.scopeUri)) return true;
  CLOGE(kWhere, "CheckApiPermission. Failed!");
  SetResponseStatus(status, TarnStatus::kApiIllegal);
  return false;
}

bool KitApiGates::CheckApiLevel(RequestHeader& header, ResponseStatus& status, const LevelChecks& checks) {
  static constexpr const char* kWhere = "KitManagerApi::CheckApiLevel";
  if (checks.configCheckApiLevel(header, status)) return true;
  if (status.status_code != TarnStatus::kApiLevelLow2.code && status.status_code != TarnStatus::kApiLevelLow.code)
    return false;
  if (checks.isUpdating()) {
    const bool newSdk = checks.versionAtLeast(header.sdk_version, "5.3.0.300");
    SetResponseStatus(status, newSdk ? TarnStatus::kUpdating2 : TarnStatus::kUpdating);
    CLOGE(kWhere, "tarn is updating.");
    return false;
  }
  if (checks.hasNewVersion()) return false;
  SetResponseStatus(status, TarnStatus::kNoNewVersion);
  CLOGE(kWhere, "now has not new version.");
  return false;
}

bool KitApiGates::IsTarnCorerequest(uint32_t processId, const RequestHeader& header) {
  static constexpr const char* kWhere = "KitManagerApi::IsTarnCorerequest";
  if (header.client_id != kCoreClientId) return false;
  std::string path;
  if (SignatureVerifyer::GetInstance()->GetAndVerifyTarnCoreExePath(processId, path) != 0) {
    if (path.empty()) CLOGE(kWhere, "VerifyTarnCoreExePath failed, modulesExePath is null.");
    CLOGE(kWhere, "GetAndVerifyTarnCoreExePath failed, pid = " << processId);
    return false;
  }
  return CheckIsInstallationPath(path);
}

bool KitApiGates::CheckIsInstallationPath(std::string path) {
  std::string progPath = tarn::os::InstallDirectory();
  if (!progPath.empty() && progPath.back() == '/') progPath.pop_back();
  auto lower = [](std::string& text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  };
  lower(progPath);
  lower(path);
  if (path.find(progPath) != std::string::npos) return true;
  CLOGI("KitManagerApi::CheckIsInstallationPath",
        "Path Mismatch, sProgPath = " << progPath << " modulesExePath = " << path);
  return false;
}

}  // namespace tarn::access

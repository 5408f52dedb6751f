#pragma once
// The gates between a request and a kit's function, and the test that tells
// the platform's own processes from other callers. They are the kit
// manager's operations: KitManagerApi forwards to these and supplies what
// belongs to other subsystems (the dispatch map, the update state), so log
// lines carry the kit manager's names.
#include <cstdint>
#include <functional>
#include <string>

#include "pipeline/Records.h"  // RequestHeader, ResponseStatus, status table

namespace tarn::access {

// Client id of the platform's own processes.
inline constexpr const char* kCoreClientId = "204518762";
// The permission text that marks an api as needing no permission, like an
// empty one. Manifests use the same constant.
inline constexpr const char* kNoPermissionNeeded = "http://xxx.xxx.xxx";

class KitApiGates {
 public:
  // What the permission gate reads of the api's dispatch record.
  struct ApiPermissionInfo {
    std::string apiName;  // empty: the uri is unknown
    std::string permission;
    std::string scopeUri;
  };
  // ConfigManager::GetAPIInfo for the request, made only when needed.
  using ApiInfoLookup = std::function<ApiPermissionInfo()>;

  // The permission gate. True to go on; on false the status holds the refusal.
  static bool CheckApiPermission(bool isTarnCoreRequest, const std::string& uri, const RequestHeader& header,
                                 const ApiInfoLookup& lookup, ResponseStatus& status);

  // What the API level gate needs of other subsystems.
  struct LevelChecks {
    std::function<bool(RequestHeader&, ResponseStatus&)> configCheckApiLevel;  // ConfigManager::CheckApiLevel
    std::function<bool()> isUpdating;                                          // KitStoreManager::IsUpdating
    std::function<bool()> hasNewVersion;                                       // UpgradeManager's HasNewVersion
    std::function<bool(const std::string&, const std::string&)> versionAtLeast;
  };
  // The API level gate: true only when the configuration says the level is served.
  static bool CheckApiLevel(RequestHeader& header, ResponseStatus& status, const LevelChecks& checks);

  // True for a request whose client id is the core client id and whose
  // process runs a signed executable inside the installation folder.
  static bool IsTarnCorerequest(uint32_t processId, const RequestHeader& header);
  // True when the folder of this program occurs in `path`, case folded.
  static bool CheckIsInstallationPath(std::string path);
};

}  // namespace tarn::access

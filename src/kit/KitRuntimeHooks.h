#pragma once
// What the kit manager needs of subsystems that are wired in beside it: the
// update state and the built-in framework kit. The process installs one implementation at start-up (before
// KitManagerApi::Init) and keeps it alive; tests install their own.
//
// Without an installed implementation:
//   IsUpdating                 false: no self-update is running
//   HasNewVersion              false: no new version is known
//   RegisterFrameworkHandlers  registers nothing
//   FrameworkInvoke            logs "uri: <uri> is not supported" and leaves the
//                              status alone, as an empty handler table does
#include <string>

#include "pipeline/Records.h"

class ServerResCallBack;

namespace tarn::kit {

class KitRuntimeHooks {
 public:
  virtual ~KitRuntimeHooks() = default;

  // KitStoreManager::IsUpdating: a self-update is running.
  virtual bool IsUpdating();
  // UpgradeManager's HasNewVersion: an update of the platform exists.
  virtual bool HasNewVersion();
  // FrameworkKitAPI's registrations, each entering its uri into the dispatch map.
  virtual void RegisterFrameworkHandlers();
  // FrameworkKitAPI::Invoke. The result is not looked at.
  virtual bool FrameworkInvoke(const std::string& uri, ServerResCallBack* item,
                               ConvertedRequest& request, ResponseStatus& status);
};

// The installed implementation, or the defaults above.
KitRuntimeHooks& GetKitRuntimeHooks();
// Not owned; nullptr restores the defaults.
void SetKitRuntimeHooks(KitRuntimeHooks* hooks);

}  // namespace tarn::kit

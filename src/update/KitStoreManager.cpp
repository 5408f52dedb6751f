#include "update/KitStoreManager.h"

#include "config/VersionAtLeast.h"
#include "platform/log/tarn_log.h"
#include "platform/os/clock.h"
#include "platform/os/process.h"
#include "update/UpgradeManager.h"

std::mutex updateLock;

namespace {
constexpr std::uint32_t kUpdateFreshMs = 60000;
constexpr const char* kUiProcessName = "TarnCoreUI.exe";
constexpr const char* kAll = "ALL";

// The UI's process name as this system writes it ("TarnCoreUI.exe"); Linux
// executables have no suffix, so both spellings count as the UI.
bool UiProcessRunning() {
  std::string name = kUiProcessName;
  if (tarn::os::IsProcessRunning(name)) return true;
  return tarn::os::IsProcessRunning(name.substr(0, name.size() - 4));
}
}  // namespace

KitStoreManager& KitStoreManager::GetInstance() {
  static auto* instance = new KitStoreManager;  // threads WaitAll left behind may still use it
  return *instance;
}

bool KitStoreManager::IsUpdating() {
  CLOGI("KitStoreManager::IsUpdating", "KitStoreManager.IsUpdating start.");
  std::unique_lock<std::mutex> lock(updateLock);
  if (updatingKits.empty()) {
    lock.unlock();
    CLOGI("KitStoreManager::IsUpdating", "TarnCore is not updating.");
    return false;
  }
  // Unsigned difference: the wrap of the tick counter does no harm.
  if (static_cast<std::uint32_t>(tarn::os::GetTickCount() - updateStartTick) <= kUpdateFreshMs) {
    lock.unlock();
    CLOGI("KitStoreManager::IsUpdating", "TarnCore is updating,not expired.");
    return true;
  }
  // Older than a minute: only a living UI keeps the update open.
  if (UiProcessRunning()) {
    lock.unlock();
    CLOGI("KitStoreManager::IsUpdating", "KitStoreManager.IsUpdating end, kit is updating.");
    return true;
  }
  updatingKits.clear();
  updateStartTick = 0;
  lock.unlock();
  CLOGI("KitStoreManager::IsUpdating", "TarnCore is expired and ui is not existed, unlock updating.");
  return false;
}

bool KitStoreManager::StartSelfUpdate(ResponseStatus& status, const std::string& sdkVersion) {
  CLOGI("KitStoreManager::StartSelfUpdate", "KitStoreManager.StartSelfUpdate start");
  // Held across the cloud query and the UI start: two requests may never both see idle.
  std::unique_lock<std::mutex> lock(updateLock);
  if (!updatingKits.empty()) {
    SetResponseStatus(status, TarnStatus::kUpdateInvokeSuccess);
    lock.unlock();
    CLOGE("KitStoreManager::StartSelfUpdate", "TARN is Updating.");
    return true;
  }
  if (!UpgradeManager::GetInstance().HasNewVersion()) {
    SetResponseStatus(status, TarnStatus::kNoNewVersion);
    lock.unlock();
    CLOGE("KitStoreManager::StartSelfUpdate", "now has not new version.");
    return false;
  }
  updatingKits.push_back(kAll);
  updateStartTick = tarn::os::GetTickCount();
  // A newer client gets the question to the user first; an older one goes straight on.
  const bool started =
      VersionAtLeast(sdkVersion, "5.3.0.300") ? CheckUserAgree() : ShowScrollAndUpdate();
  if (!started) {
    SetResponseStatus(status, TarnStatus::kUpdateFailed);
    RemoveUpdatingAll();
    updateStartTick = 0;
    lock.unlock();
    CLOGE("KitStoreManager::StartSelfUpdate", "TARN Update is failed.");
    return false;
  }
  SetResponseStatus(status, TarnStatus::kUpdateInvokeSuccess);
  lock.unlock();
  CLOGI("KitStoreManager::StartSelfUpdate", "KitStoreManager.StartSelfUpdate end");
  return true;
}

void KitStoreManager::CompleteUpdate() {
  CLOGI("KitStoreManager::CompleteUpdate", "KitStoreManager.CompleteUpdate start.");
  {
    std::lock_guard<std::mutex> lock(updateLock);
    updatingKits.clear();
    updateStartTick = 0;
  }
  CLOGI("KitStoreManager::CompleteUpdate", "KitStoreManager.CompleteUpdate end.");
}

bool KitStoreManager::CheckUserAgree() {
  CLOGI("KitStoreManager::CheckUserAgree", "KitStoreManager.CheckUserAgree start");
  const bool result = UpgradeManager::GetInstance().StartVtFrameworkUi(L"Dialog_ApiLevel");
  CLOGI("KitStoreManager::CheckUserAgree", "KitStoreManager.CheckUserAgree end");
  return result;
}

bool KitStoreManager::ShowScrollAndUpdate() {
  CLOGI("KitStoreManager::ShowScrollAndUpdate", "KitStoreManager.ShowScrollAndUpdate start");
  const bool result = UpgradeManager::GetInstance().StartVtFrameworkUi(L"Upgrade");
  CLOGI("KitStoreManager::ShowScrollAndUpdate", "KitStoreManager.ShowScrollAndUpdate end");
  return result;
}

void KitStoreManager::RemoveUpdatingAll() {
  for (auto it = updatingKits.begin(); it != updatingKits.end();) {
    if (*it == kAll) {
      it = updatingKits.erase(it);
    } else {
      ++it;
    }
  }
}

void KitStoreManager::ResetForTesting() {
  std::lock_guard<std::mutex> lock(updateLock);
  updatingKits.clear();
  updateStartTick = 0;
}

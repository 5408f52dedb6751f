#include "kit/LoadManger.h"

#include <mutex>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "kit/KitLibrary.h"
#include "pipeline/ServerManager.h"
#include "platform/log/tarn_log.h"
#include "platform/os/clock.h"
#include "platform/os/message_queue.h"
#include "tarnkit/tarn_kit.h"
#include "thread/ThreadManager.h"

namespace {

constexpr std::uint32_t kLoadKitsWaitMs = 2000;
constexpr const char* kKitsDir = "kits/";
// Computed beside kits/ for the update tooling; nothing in the container reads them.
[[maybe_unused]] constexpr const char* kKitsBackDir = "kits_back/";
[[maybe_unused]] constexpr const char* kKitsUpdateDir = "kits_update/";

}  // namespace

LoadManger& LoadManger::GetInstance() {
  // Never destroyed: kits answer from their own threads until the process ends.
  static auto* instance = new LoadManger;
  return *instance;
}

LoadManger::LoadManger() : loadedKits(new std::map<std::string, void*>) {}

void LoadManger::ResetForTesting() {
  std::unique_lock lock(tableMutex_);
  loadedKits->clear();
  kitSignals.clear();
  std::unique_lock exportsLock(exportsMutex_);
  exports_.clear();
}

void* LoadManger::FindApiFunction(void* module, const std::string& apiName) {
  {
    std::shared_lock lock(exportsMutex_);
    auto kit = exports_.find(module);
    if (kit != exports_.end()) {
      auto it = kit->second.find(apiName);
      if (it != kit->second.end()) return it->second;
    }
  }
  void* function = tarn::kit::FindExport(module, apiName);
  if (function) {
    std::unique_lock lock(exportsMutex_);
    exports_[module].emplace(apiName, function);
  }
  return function;
}

std::string LoadManger::KitLibraryPath(const std::string& packageName, const std::string& fileName) {
  return tarn::config::InstallDirectory() + kKitsDir + packageName + "/" + fileName;
}

bool LoadManger::FindKit(const std::string& packageName, void*& handle) {
  std::shared_lock lock(tableMutex_);
  auto it = loadedKits->find(packageName);
  if (it == loadedKits->end()) return false;
  handle = it->second;
  return true;
}

void LoadManger::SetKit(const std::string& packageName, void* handle) {
  std::unique_lock lock(tableMutex_);
  (*loadedKits)[packageName] = handle;
}

bool LoadManger::HasKit(std::string packageName) {
  void* handle = nullptr;
  return FindKit(packageName, handle);
}

bool LoadManger::LoadAllKit() {
  auto& threads = VantrelThread::ThreadManager::Instance();
  // Events of an earlier run are dropped, not waited for.
  kitSignals.clear();
  kitSignals.push_back(threads.processExitEvent);

  ConfigManager& config = ConfigManager::GetInstance();
  if (config.kitConfigMap.empty()) {
    RcvKitsSignal();
    return true;
  }
  for (const auto& [key, kitConfig] : config.kitConfigMap) {
    if (!kitConfig || !kitConfig->subKits) continue;
    for (const std::shared_ptr<SubKitConfig>& subKit : *kitConfig->subKits) {
      if (!subKit) continue;
      const std::string packageName = subKit->packageName;
      const std::string startup = subKit->startup;
      if (startup != "true") {
        CLOGI("LoadManger::LoadAllKit",
              "this kit is not need to load when loading all kit.packageName = "
                  << packageName << ", startup = " << startup);
        continue;
      }
      auto event = tarn::os::Event::Create(true, false);
      kitSignals.push_back(event);
      CLOGI("LoadManger::LoadAllKit",
            "LoadAllKit CreateEvent. pkgName,hEvent = " << packageName << "," << event.get());
      subKit->hEvent = event;

      const std::string name = "LoadManger::LoadWorkerThread, pkgName = " + packageName;
      // The thread function holds the record, so a refresh that replaces it
      // can't pull it from under a loader that is still running.
      auto thread = [subKit](void* param) -> std::uint32_t { return LoadWorkerThread(param); };
      if (!threads.CreateRemovable(thread, subKit.get(), name)) {
        CLOGE("LoadManger::LoadAllKit", "Create loadKit sub thread failed.");
      }
    }
  }
  RcvKitsSignal();
  return true;
}

std::uint32_t LoadManger::LoadWorkerThread(void* param) {
  auto* threadParam = static_cast<VantrelThread::ThreadParam*>(param);
  auto* subKit = static_cast<SubKitConfig*>(threadParam->arg);
  const std::string packageName = subKit->packageName;
  std::shared_ptr<tarn::os::Event> event = subKit->hEvent;
  CLOGI("LoadManger::LoadWorkerThread",
        "LoadManger WorkerThread start. packageName = " << packageName);

  GetInstance().LoadKit(packageName, subKit);

  auto& threads = VantrelThread::ThreadManager::Instance();
  if (tarn::os::WaitForSingle(threads.processExitEvent, 0) == tarn::os::kWaitObject0) {
    event.reset();
    CLOGI("LoadManger::LoadWorkerThread",
          "LoadManger WorkerThread end. Receive process exit signal. packageName = " << packageName);
    return 0;
  }
  const std::uint32_t threadId = tarn::os::GetCurrentThreadId();
  if (threads.del(threadId)) {
    CLOGI("LoadManger::LoadWorkerThread", "Load kit thread exit successfully.packageName = "
                                              << packageName << ", threadId = " << threadId);
  }
  if (event) event->Set();
  CLOGI("LoadManger::LoadWorkerThread", "LoadManger WorkerThread end. packageName = " << packageName);
  return 0;
}

void LoadManger::RcvKitsSignal() {
  CLOGI("LoadManger::RcvKitsSignal", "Load Kits to wait signal begin");
  const std::uint32_t start = tarn::os::GetTickCount();
  std::uint32_t timeout = kLoadKitsWaitMs;
  for (;;) {
    std::vector<tarn::os::Waitable*> handles;
    handles.reserve(kitSignals.size());
    for (const auto& event : kitSignals) handles.push_back(event.get());
    const std::uint32_t result = tarn::os::WaitForAny(handles, timeout);
    if (result == tarn::os::kWaitObject0) {
      CLOGI("LoadManger::RcvKitsSignal", "Received process exit signal.");
      break;
    }
    if (result > tarn::os::kWaitObject0 && result < kitSignals.size()) {
      kitSignals.erase(kitSignals.begin() + result);
      if (kitSignals.size() == 1) {
        CLOGI("LoadManger::RcvKitsSignal", "All kits receive signals.");
        break;
      }
    }
    // Also a time-out or a failed wait: with only the exit event left, or more
    // handles than one wait takes, this runs out the full two seconds.
    const auto gone = static_cast<std::int32_t>(tarn::os::GetTickCount() - start);
    if (gone >= static_cast<std::int32_t>(kLoadKitsWaitMs)) break;
    timeout = kLoadKitsWaitMs - static_cast<std::uint32_t>(gone);
  }
  CLOGI("LoadManger::RcvKitsSignal", "Load Kits to wait signal end");
}

bool LoadManger::LoadKit(const std::string& packageName, SubKitConfig* subKit) {
  CLOGI("LoadManger::LoadKit", "LoadKit packageName = " << packageName);
  const std::string type = subKit->type;
  const std::string entry = subKit->entry;
  const std::string startup = subKit->startup;
  const std::string kitName = subKit->kitName;
  const std::string fileName = subKit->fileName;
  const std::string kitManifVerify = subKit->kitManifVerify;
  if (startup != "true") {
    CLOGI("LoadManger::LoadKit", "this kit not need loaded when service startup.packageName = "
                                     << packageName << ", startup = " << startup);
    return true;
  }
  std::string forceUpdate;
  ConfigManager::GetInstance().GetForceUpdateFlag(kitName, forceUpdate);
  if (forceUpdate == "1") {
    CLOGI("LoadManger::LoadKit",
          "this kit = " << kitName << " no need load forceupdate = " << forceUpdate);
    return true;
  }
  return LoadKit(packageName, fileName, type, entry, kitManifVerify);
}

bool LoadManger::LoadKit(std::string packageName, std::string fileName, std::string type,
                         std::string entry, std::string kitManifVerify) {
  if (type != "app") return false;
  if (HasKit(packageName)) return false;
  if (entry.empty()) entry = "Init";
  const std::string dllPath = KitLibraryPath(packageName, fileName);

  // The signature is tested on an open descriptor, and that descriptor is
  // what gets mapped, so nothing can be swapped in between.
  tarn::kit::KitFile file(dllPath);
  if (ConfigManager::GetInstance().verifyEnabled && !file.Verified()) {
    CLOGE("LoadManger::LoadKit", "LoadKit sign verify failed. dllpath = " << dllPath);
    return false;
  }
  CLOGI("LoadManger::LoadKit", "Load kit to load LibraryEx begin, dllPath = " << dllPath);
  std::string error;
  void* module = file.Load(error);
  CLOGI("LoadManger::LoadKit", "Load kit to load LibraryEx end.");
  if (!module) {
    CLOGE("LoadManger::LoadKit", "LoadLibraryEx failed, dllPath = " << dllPath << " error = " << error);
    return false;
  }

  if (!CompareVerifyCode(module, kitManifVerify)) {
    tarn::kit::CloseLibrary(module);
    return false;
  }
  SetKit(packageName, module);

  auto init = reinterpret_cast<TarnKitEntryFunction>(tarn::kit::FindExport(module, entry));
  if (!init) {
    // The entry stays, empty: the package is dead for the life of the process.
    SetKit(packageName, nullptr);
    tarn::kit::CloseLibrary(module);
    CLOGE("LoadManger::LoadKit", "LoadKit method init invoke failed. dllPath: " << dllPath);
    return false;
  }
  CLOGI("LoadManger::LoadKit", "invoke kit init begin. dllpath = " << dllPath);
  init(ServerManager::GetInstance().broadcastSendHandle);
  CLOGI("LoadManger::LoadKit", "invoke kit init success.");
  return true;
}

bool LoadManger::LoadKitDll(const std::string& packageName) {
  CLOGI("LoadManger::LoadKitDll", "Enter LoadKitDll packageName = " << packageName);
  ConfigManager& config = ConfigManager::GetInstance();
  auto found = config.kitConfigMap.find(packageName);
  if (config.kitConfigMap.empty() || found == config.kitConfigMap.end()) {
    CLOGE("LoadManger::LoadKitDll", "Not find packageName = " << packageName);
    return false;
  }
  std::shared_ptr<KitConfig> kitConfig = found->second;
  if (!kitConfig || !kitConfig->subKits) return true;
  for (const std::shared_ptr<SubKitConfig>& subKit : *kitConfig->subKits) {
    if (!subKit) continue;
    if (subKit->startup == "true") {
      if (LoadKit(subKit->packageName, subKit->fileName, subKit->type, subKit->entry,
                  subKit->kitManifVerify)) {
        CLOGI("LoadManger::LoadKitDll", "Load success for kit = " << subKit->kitName);
      } else {
        CLOGE("LoadManger::LoadKitDll", "Load kit failed packageName = " << packageName);
      }
    } else {
      CLOGI("LoadManger::LoadKitDll", "no need loaded, not auto startup kit = " << subKit->kitName);
    }
  }
  return true;
}

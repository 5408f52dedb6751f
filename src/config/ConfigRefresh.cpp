// The refresh of the remote configuration: a worker that fetches the cloud's
// copy a minute after start and then daily, keeps it in the cache directory
// when it differs, and applies it at once.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <mutex>
#include <sstream>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "config/ConfigRefresh.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "platform/log/tarn_log.h"
#include "thread/ThreadManager.h"

namespace tarn::config {

namespace {

constexpr std::uint32_t kFirstCyclePeriodMs = 60000;

std::mutex g_hooksMutex;
// Never destroyed: the refresh worker may outlive WaitAll's wait.
RefreshKitHooks& g_kitHooks = *new RefreshKitHooks;
RefreshWait& g_wait = *new RefreshWait;

std::uint32_t Wait(const std::vector<tarn::os::Waitable*>& handles, std::uint32_t timeoutMs) {
  RefreshWait wait;
  {
    std::lock_guard<std::mutex> lock(g_hooksMutex);
    wait = g_wait;
  }
  return wait ? wait(handles, timeoutMs) : tarn::os::WaitForAny(handles, timeoutMs);
}

// The HTTPS GET of the utility library: 0 on success; otherwise the HTTP status
// when the server answered, else -1. The refresh sends no request headers.
int RequestHttpsGetDo(const std::string& url, std::string& response, std::string& responseHeader) {
  tarn::http::HttpResponse answer;
  if (HttpUtil::HttpGet(url, answer)) {
    response = std::move(answer.body);
    responseHeader = std::move(answer.header);
    return 0;
  }
  return answer.status != 0 ? static_cast<int>(answer.status) : -1;
}

// Writes the whole text; the result of the writes isn't looked at, as a short
// file is caught by the reader's checks.
void WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

void SetRefreshKitHooks(RefreshKitHooks hooks) {
  std::lock_guard<std::mutex> lock(g_hooksMutex);
  g_kitHooks = std::move(hooks);
}

RefreshKitHooks GetRefreshKitHooks() {
  std::lock_guard<std::mutex> lock(g_hooksMutex);
  return g_kitHooks;
}

void SetRefreshWaitForTesting(RefreshWait wait) {
  std::lock_guard<std::mutex> lock(g_hooksMutex);
  g_wait = std::move(wait);
}

}  // namespace tarn::config

std::uint32_t ConfigManager::WorkerThread(void* param) {
  auto* threadParam = static_cast<VantrelThread::ThreadParam*>(param);
  auto& manager = ConfigManager::GetInstance();
  CLOGI("ConfigManager::WorkerThread", "ConfigManager WorkerThread start.");

  // The handles are taken once: a later Init brings its own event and worker.
  // The generation is read first, so a reset between the two reads is seen at
  // the first wake; a reset before both leaves no event, and this worker is done.
  const std::uint64_t generation = manager.workerGeneration_.load();
  const std::shared_ptr<tarn::os::Event> exitEvent =
      VantrelThread::ThreadManager::Instance().processExitEvent;
  const std::shared_ptr<tarn::os::Event> wakeEvent = [&manager] {
    std::lock_guard lock(manager.configEventMutex_);
    return manager.configEvent;
  }();
  const std::vector<tarn::os::Waitable*> handles = {exitEvent.get(), wakeEvent.get()};

  while (threadParam->running && wakeEvent) {
    const std::uint32_t period = g_forceUpdateTimeperiod;
    const std::uint32_t result = tarn::config::Wait(handles, period);
    if (result == tarn::os::kWaitObject0) break;
    // A reset for a test retires the workers of earlier runs.
    if (generation != manager.workerGeneration_.load()) break;
    // A time-out, the wake event and a failed wait all fetch.
    CLOGI("ConfigManager::WorkerThread",
          "RemoteConfig param WorkerThread Try to get remote config from cloud. g_forceUpdateTimeperiod = "
              << g_forceUpdateTimeperiod.load());
    if (!manager.GetConfigFromCloud() && g_forceUpdateTimeperiod == tarn::config::kFirstCyclePeriodMs) {
      // Owed again when the network comes up.
      manager.configCheckDone = false;
    }
    g_forceUpdateTimeperiod = g_timePeriodOneday.load();
  }

  CLOGI("ConfigManager::WorkerThread", "ConfigManager WorkerThread end.");
  return 0;
}

bool ConfigManager::GetConfigFromCloud() {
  const int result = DownloadConfigFile();
  if (result == tarn::config::kDownloadFailed) return false;
  if (result == tarn::config::kDownloadSame) return true;
  // A failed read has been dealt with there (the service is stopping); the
  // fetch itself worked.
  if (!ReadRemoteConfig()) return true;
  ConstuctApiDispathMap();
  CLOGI("ConfigManager::GetConfigFromCloud", "Load remoteconfig complete, update kit and init ScopeService.");
  ReloadKitsAfterRefresh();
  return true;
}

int ConfigManager::DownloadConfigFile() {
  int result = tarn::config::kDownloadFailed;
  CLOGI("ConfigManager::DownloadConfigFile", "Download config file begin. ");

  std::string baseUrl;
  // An address that isn't there leaves the base empty, and the request fails.
  UrlLoader::GetServiceUrl(tarn::config::kConfigServerName, baseUrl, tarn::config::kConfigServerKey);
  const std::string url = baseUrl + tarn::config::kConfigServerPath;

  std::string strResp;
  std::string strHeader;
  const int ret = tarn::config::RequestHttpsGetDo(url, strResp, strHeader);
  if (ret != 0) {
    CLOGE("ConfigManager::DownloadConfigFile", "Download remoteconfig failed. ret = " << ret);
    return result;
  }
  CLOGI("ConfigManager::DownloadConfigFile", "strResp : " << strResp << "strHeader : " << strHeader);

  if (CompareContent(strResp)) {
    CLOGI("ConfigManager::DownloadConfigFile", "Cloud remoteconfig is same with local one, no need save it.");
    return tarn::config::kDownloadSame;
  }

  const std::string install = tarn::config::InstallDirectory();
  const std::string folder = install + "config/cache";
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    // The last level only: config/ belongs to the installation.
    if (::mkdir(folder.c_str(), 0755) == 0) {
      CLOGI("ConfigManager::DownloadConfigFile", "Folder not exist, create folder = " << folder);
    } else {
      CLOGE("ConfigManager::DownloadConfigFile",
            "Folder not exist, but create folder error = " << errno);
      return result;
    }
  }

  const std::string path = install + tarn::config::kCachedRemoteConfigFile;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    CLOGE("ConfigManager::DownloadConfigFile", "failed to out config file error: " << errno);
    return result;
  }
  tarn::config::WriteAll(fd, strResp);
  ::close(fd);
  CLOGI("ConfigManager::DownloadConfigFile", "Download config file end. ");
  result = tarn::config::kDownloadSaved;
  return result;
}

bool ConfigManager::CompareContent(const std::string& content) {
  const std::string path = tarn::config::InstallDirectory() + tarn::config::kCachedRemoteConfigFile;
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) {
    // Normal on a first run: there is no cached copy yet.
    CLOGE("ConfigManager::CompareContent", "Failed Open config = " << path << " error = " << errno);
    return false;
  }
  std::istringstream body(content);
  std::string fileLine;
  std::string bodyLine;
  while (!file.eof() && !body.eof()) {
    std::getline(file, fileLine);
    std::getline(body, bodyLine);
    if (fileLine != bodyLine) return false;
  }
  // One side that still has lines (or a final line feed) differs.
  return file.eof() && body.eof();
}

void ConfigManager::ReloadKitsAfterRefresh() {
  const tarn::config::RefreshKitHooks hooks = tarn::config::GetRefreshKitHooks();
  const std::shared_ptr<PackageInfoList> packages = remoteConfig.packageInfoList;
  if (packages && hooks.hasKit && hooks.loadKitDll) {
    for (const auto& package : *packages) {
      if (!package || (package->forceUpdate != "0" && package->forceUpdate != "2")) continue;
      // Loaded kits stay as they are, even with a changed manifest; nothing is unloaded.
      if (!hooks.hasKit(package->packageName)) hooks.loadKitDll(package->packageName);
    }
  }
  if (hooks.hasScopeService && hooks.createWasmScopeService && !hooks.hasScopeService()) {
    hooks.createWasmScopeService();
  }
}

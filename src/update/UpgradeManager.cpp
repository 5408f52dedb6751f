#include "update/UpgradeManager.h"

#include <cerrno>
#include <optional>
#include <vector>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "platform/appupdate/upgrade_api.h"
#include "platform/commonutil/de.h"
#include "platform/desktop/desktop.h"
#include "platform/log/tarn_log.h"
#include "platform/os/connectivity.h"
#include "platform/os/event.h"
#include "platform/os/named_mutex.h"
#include "platform/os/pinned_file.h"
#include "platform/os/places.h"
#include "platform/os/process.h"
#include "platform/os/registry.h"
#include "platform/os/text.h"
#include "platform/security/security.h"
#include "thread/ThreadManager.h"

using VantrelThread::ThreadManager;
using VantrelThread::ThreadParam;

namespace {
constexpr int kMonitorChecks = 3;
// The UI's name in log lines is the system's own; the file drops the suffix.
constexpr const char* kUiFileName = "TarnCoreUI";
// The UI's privileged part: runs the install that "Upgrade" asks for when the
// UI itself runs as the person at the desktop.
constexpr const char* kUpdaterFileName = "TarnCoreUpdater";
constexpr const wchar_t* kUpgradeArguments = L"Upgrade";
constexpr const char* kInstallMutex = "TarnCore_Install";
constexpr const char* kDownloadDir = "/Vantrel/TARNCORE/Download";
constexpr const char* kServiceDb = "tarncoreservice.db";
constexpr std::size_t kRegistryReadLimit = 64 * 1024;
}  // namespace

UpgradeManager& UpgradeManager::GetInstance() {
  static auto* instance = new UpgradeManager;  // its threads may outlive WaitAll's wait
  return *instance;
}

void UpgradeManager::Init() {
  CLOGI("UpgradeManager::Init", "UpgradeManager.Init begin.");
  workerEvent = tarn::os::Event::Create(false, false);
  if (!workerEvent ||
      !ThreadManager::Instance().Create(&UpgradeManager::WorkerThread, nullptr,
                                        "UpgradeManager::WorkerThread", false)) {
    CLOGE("UpgradeManager::Init", "UpgradeManager.Init StartAutoUpgrade failed.");
  }
  monitorEvent = tarn::os::Event::Create(false, false);
  ThreadManager::Instance().Create(&UpgradeManager::MonitorThread, nullptr,
                                   "UpgradeManager::MonitorThread", false);
  CLOGI("UpgradeManager::Init", "UpgradeManager.Init end.");
}

std::uint32_t UpgradeManager::MonitorThread(void* param) {
  auto* thread = static_cast<ThreadParam*>(param);
  auto& self = GetInstance();
  CLOGI("UpgradeManager::MonitorThread", "UpgradeManager. MonitorThread invoked.");
  std::vector<tarn::os::Waitable*> handles{ThreadManager::Instance().processExitEvent.get(),
                                           self.monitorEvent.get()};
  std::uint32_t period = ConfigManager::GetInstance().upgradeTimeAfterStart;
  CLOGI("UpgradeManager::MonitorThread",
        "RemoteConfig param UpgradeManager upgradeTimeAfterStart = " << period);
  self.monitorDone = false;
  int count = 0;
  while (thread->running && !self.monitorDone) {
    // Only the exit event ends the loop; a time-out, the event and a failed wait go on.
    if (tarn::os::WaitForAny(handles, period) == tarn::os::kWaitObject0) break;
    ++count;
    if (self.InternetConnected()) {
      CLOGI("UpgradeManager::MonitorThread", "UpgradeManager. MonitorThread network ready.");
      self.monitorDone = true;
      if (self.workerEvent) self.workerEvent->Set();
    }
    period = self.monitorRetryMs_;
    // Not tied to the check above: a network found at the last check still
    // leaves the check owed, so the next connect wakes the worker once more.
    if (count >= kMonitorChecks) {
      self.monitorDone = true;
      self.startupCheckDone = false;
    }
  }
  CLOGI("UpgradeManager::MonitorThread", "UpgradeManager. MonitorThread quit.");
  return 0;
}

std::uint32_t UpgradeManager::WorkerThread(void* param) {
  auto* thread = static_cast<ThreadParam*>(param);
  auto& self = GetInstance();
  CLOGI("UpgradeManager::WorkerThread", "UpgradeManager. WorkerThread invoked.");
  std::vector<tarn::os::Waitable*> handles{ThreadManager::Instance().processExitEvent.get(),
                                           self.workerEvent.get()};
  while (thread->running) {
    const std::uint32_t period = ConfigManager::GetInstance().timerPeriodTarnCoreUpdate;
    CLOGI("UpgradeManager::WorkerThread",
          "RemoteConfig param UpgradeManager TimerPeriodTarnCoreUpdate = " << period);
    if (tarn::os::WaitForAny(handles, period) == tarn::os::kWaitObject0) break;
    if (self.IsAutoUpgradeEnable() || self.forceUpgrade) {
      {
        auto api = self.MakeUpgradeApi();
        api->Init();
        api->TarnCoreAppSilentUpgrade(self.forceUpgrade);
      }
      CLOGI("UpgradeManager::WorkerThread", "UpgradeManager. AutoUpgrade invoked.");
    }
    self.forceUpgrade = false;
  }
  CLOGI("UpgradeManager::WorkerThread", "UpgradeManager. WorkerThread quit.");
  return 0;
}

bool UpgradeManager::IsAutoUpgradeEnable() {
  const std::string value = ReadRegistryWideValue("SOFTWARE\\Tarn Core\\VTID", "AutoUpgrade");
  CLOGI("UpgradeManager::IsAutoUpgradeEnable", "RegKey autoUpgrade Value " << value);
  return value == "true";
}

std::string UpgradeManager::ReadRegistryWideValue(const std::string& keyName,
                                                  const std::string& valueName) {
  auto& registry = tarn::os::Registry();
  if (registry.OpenKey(keyName) != 0) return {};
  std::string value;
  if (registry.GetValue(keyName, valueName, value, kRegistryReadLimit) != 0) return {};
  // A REG_SZ read keeps what comes before its terminator.
  const auto zero = value.find('\0');
  if (zero != std::string::npos) value.resize(zero);
  return value;
}

bool UpgradeManager::ContainsText(std::string text, std::string word) {
  return text.find(word) != std::string::npos;
}

bool UpgradeManager::HasNewVersion() {
  auto api = MakeUpgradeApi();
  api->Init();
  std::vector<char> buffer(tarn::appupdate::kCheckBufferSize, '\0');
  if (!api->CheckTarnCoreUpdate(buffer.data())) return false;
  buffer.back() = '\0';
  return ContainsText(std::string(buffer.data()), "updateAppInfo");
}

bool UpgradeManager::StartVtFrameworkUi(std::wstring arguments) {
  CLOGI("UpgradeManager::StartVtFrameworkUi", "UpgradeManager.StartVTFrameworkUI begin.");
  // Held open from the test to the start, which execs that same descriptor.
  const tarn::os::PinnedFile ui(tarn::config::InstallDirectory() + kUiFileName);
  if (ConfigManager::GetInstance().verifyEnabled) {
    if (!VerifyEmbeddedSignature(ui.ReadPath().c_str())) {
      CLOGE("UpgradeManager::StartVtFrameworkUi", "sign verify failed. exepath = TarnCoreUI.exe");
      return false;
    }
    if (!VerifyVantrelDigitalSignature(tarn::os::Utf8ToWide(ui.ReadPath()))) {
      CLOGE("UpgradeManager::StartVtFrameworkUi",
            "vefify vantrel singn failed. exepath = TarnCoreUI.exe");
      return false;
    }
  }
  // The program's own folder, as the module path gives it.
  if (tarn::config::InstallDirectory().empty()) {
    CLOGE("UpgradeManager::StartVtFrameworkUi",
          "UpgradeManager.StartVTFrameworkUI GetModuleFileName failed. error: " << errno);
    return false;
  }
  std::optional<tarn::os::PinnedFile> updater;
  if (arguments == kUpgradeArguments) {
    updater.emplace(tarn::config::InstallDirectory() + kUpdaterFileName);
    if (ConfigManager::GetInstance().verifyEnabled &&
        (!VerifyEmbeddedSignature(updater->ReadPath().c_str()) ||
         !VerifyVantrelDigitalSignature(tarn::os::Utf8ToWide(updater->ReadPath())))) {
      // The UI still starts: as the person it can't install, and says so.
      CLOGE("UpgradeManager::StartVtFrameworkUi", "sign verify failed. exepath = " << kUpdaterFileName);
      updater.reset();
    }
  }
  if (!tarn::desktop::StartOnDesktop(ui, tarn::os::WideToUtf8(arguments), updater ? &*updater : nullptr)) {
    CLOGE("UpgradeManager::StartVtFrameworkUi",
          "UpgradeManager.StartVTFrameworkUI StartProcess failed.");
    return false;
  }
  CLOGI("UpgradeManager::StartVtFrameworkUi",
        "UpgradeManager.StartVTFrameworkUI StartProcess success.");
  return true;
}

void UpgradeManager::ClearRedundantFile() {
  // A running installer is only worth a line: the old downloads go all the same.
  if (auto installer = tarn::os::NamedMutex::Open(kInstallMutex)) {
    CLOGW("UpgradeManager::ClearRedundantFile",
          "Install package is running. hInstl = " << installer->handle());
  }
  const std::string directory = tarn::os::CommonAppDataPath() + kDownloadDir;
  const std::string clearPkg = "rm -rf -- " + directory;
  const bool result = tarn::os::GetProcesses().RemoveTreeDetached(directory);
  CLOGI("UpgradeManager::ClearRedundantFile",
        "Remove old files, clearPkg = " << clearPkg << " result = " << (result ? 1 : 0));
  if (DE::FileExists(kServiceDb) && DE::FileDelete(kServiceDb)) {
    CLOGI("UpgradeManager::ClearRedundantFile",
          "Delete tarncoreservice.db successfully, current path = " << DE::GetCurrentPathA());
  }
}

void UpgradeManager::OnNetworkConnected() {
  if (!startupCheckDone) {
    CLOGI("NetworkConnectForUpdate", "Check update not success after startup 10 minutes, check it now.");
    startupCheckDone = true;
    if (workerEvent) workerEvent->Set();
  }
}

std::unique_ptr<UpgradeAPI> UpgradeManager::MakeUpgradeApi() {
  if (factory_) return factory_();
  return std::make_unique<UpgradeAPI>();
}

bool UpgradeManager::InternetConnected() {
  return probe_ ? probe_() : tarn::os::InternetGetConnectedState();
}

void UpgradeManager::SetUpgradeApiFactoryForTesting(UpgradeApiFactory factory) {
  factory_ = std::move(factory);
}

void UpgradeManager::SetConnectivityProbeForTesting(std::function<bool()> probe) {
  probe_ = std::move(probe);
}

void UpgradeManager::SetMonitorRetryPeriodForTesting(std::uint32_t ms) { monitorRetryMs_ = ms; }

void UpgradeManager::ResetForTesting() {
  monitorEvent = tarn::os::Event::Create(false, false);
  workerEvent = tarn::os::Event::Create(false, false);
  forceUpgrade = false;
  monitorDone = false;
  startupCheckDone = true;
}

#pragma once
// The silent self-upgrade: a monitor that waits after the start and checks for
// a network, a worker that runs the update library once per period, the start
// of the update UI, the new-version query, and the clean-up of old downloads.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/os/event.h"

class UpgradeAPI;

class UpgradeManager {
 public:
  static UpgradeManager& GetInstance();

  // Starts "UpgradeManager::WorkerThread" and "UpgradeManager::MonitorThread".
  void Init();
  // Thread functions; param is the thread's VantrelThread::ThreadParam.
  static std::uint32_t MonitorThread(void* param);
  static std::uint32_t WorkerThread(void* param);

  // Registry "AutoUpgrade" is exactly "true".
  bool IsAutoUpgradeEnable();
  // Removes <common app data>/Vantrel/TARNCORE/Download and ./tarncoreservice.db.
  void ClearRedundantFile();
  // Starts TarnCoreUI with arguments as its command line, after its signature
  // test when verification is on. True if the process started.
  bool StartVtFrameworkUi(std::wstring arguments);
  // The update service announces a newer version ("updateAppInfo" in its answer).
  bool HasNewVersion();

  // Value of HKEY_LOCAL_MACHINE\keyName\valueName; empty on any failure.
  std::string ReadRegistryWideValue(const std::string& keyName, const std::string& valueName);
  static bool ContainsText(std::string text, std::string word);

  // Set by the network monitor's connect (see NetworkConnectForUpdate): when
  // startupCheckDone is false, set it true and signal workerEvent.
  void OnNetworkConnected();

  // Seams for tests: the update library's instances and the internet test.
  using UpgradeApiFactory = std::function<std::unique_ptr<UpgradeAPI>()>;
  void SetUpgradeApiFactoryForTesting(UpgradeApiFactory factory);
  void SetConnectivityProbeForTesting(std::function<bool()> probe);
  // The monitor's later waits (10000 ms).
  void SetMonitorRetryPeriodForTesting(std::uint32_t ms);
  // Fresh flags and events, seams kept.
  void ResetForTesting();

  std::shared_ptr<tarn::os::Event> monitorEvent;
  std::shared_ptr<tarn::os::Event> workerEvent;
  std::atomic<bool> forceUpgrade{false};
  std::atomic<bool> monitorDone{false};
  std::atomic<bool> startupCheckDone{true};

 private:
  std::unique_ptr<UpgradeAPI> MakeUpgradeApi();
  bool InternetConnected();

  UpgradeApiFactory factory_;
  std::function<bool()> probe_;
  std::atomic<std::uint32_t> monitorRetryMs_{10000};
};

// The self-update switch and the silent upgrade, with the clock, processes,
// signatures, the update library and the network test replaced.
#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "platform/appupdate/upgrade_api.h"
#include "platform/log/log_capture.h"
#include "platform/os/clock.h"
#include "platform/os/named_mutex.h"
#include "platform/os/process.h"
#include "platform/security/security.h"
#include "support/temp_root.h"
#include "thread/ThreadManager.h"
#include "update/KitStoreManager.h"
#include "update/UpdateNotify.h"
#include "update/UpgradeManager.h"

using tarn::log::Level;

namespace {

class FakeProcesses : public tarn::os::Processes {
 public:
  std::vector<pid_t> FindByName(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex);
    lookups.push_back(name);
    return uiRunning && name.rfind("TarnCoreUI", 0) == 0 ? std::vector<pid_t>{42} : std::vector<pid_t>{};
  }
  bool StartProcess(const std::string& path, const std::string& arguments) override {
    std::lock_guard<std::mutex> lock(mutex);
    starts.push_back(path + " " + arguments);
    return startSucceeds;
  }
  bool RemoveTreeDetached(const std::string& directory) override {
    std::lock_guard<std::mutex> lock(mutex);
    removed.push_back(directory);
    return true;
  }
  std::mutex mutex;
  bool uiRunning = false;
  bool startSucceeds = true;
  std::vector<std::string> lookups, starts, removed;
};

class FakeSignatures : public tarn::security::FileSignatureChecker {
 public:
  bool VerifyEmbedded(const std::string&) override { return embedded; }
  bool VerifyMaker(const std::string&) override {
    if (duringTest) duringTest();
    return maker;
  }
  std::string Thumb(const std::string&) override { return {}; }
  bool embedded = true, maker = true;
  std::function<void()> duringTest;
};

// The update library with a canned check answer, counting its upgrades.
struct LibraryScript {
  bool checkResult = true;
  std::string answer = R"({"updateAppInfo":{"version":"9.0"}})";
  std::atomic<int> upgrades{0};
};

class ScriptedUpgradeApi : public UpgradeAPI {
 public:
  explicit ScriptedUpgradeApi(LibraryScript* script) : script_(script) {}
  void Init() override {}
  bool CheckTarnCoreUpdate(char* buffer) override {
    std::snprintf(buffer, tarn::appupdate::kCheckBufferSize, "%s", script_->answer.c_str());
    return script_->checkResult;
  }
  bool TarnCoreAppSilentUpgrade(bool) override {
    ++script_->upgrades;
    return true;
  }

 private:
  LibraryScript* script_;
};

class UpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn::os::SetClockForTesting(&clock_);
    tarn::os::SetProcessesForTesting(&processes_);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&signatures_);
    tarn::config::SetInstallDirectoryForTesting(root_.path() + "/opt/tarncore/");
    root_.WriteFile("opt/tarncore/TarnCoreUI", "ui");
    auto& upgrade = UpgradeManager::GetInstance();
    upgrade.ResetForTesting();
    upgrade.SetUpgradeApiFactoryForTesting([this] { return std::make_unique<ScriptedUpgradeApi>(&library_); });
    KitStoreManager::GetInstance().ResetForTesting();
  }
  void TearDown() override {
    auto& upgrade = UpgradeManager::GetInstance();
    upgrade.SetUpgradeApiFactoryForTesting(nullptr);
    upgrade.SetConnectivityProbeForTesting(nullptr);
    upgrade.SetMonitorRetryPeriodForTesting(10000);
    KitStoreManager::GetInstance().ResetForTesting();
    tarn::config::SetInstallDirectoryForTesting("");
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
    tarn::os::SetProcessesForTesting(nullptr);
    tarn::os::SetClockForTesting(nullptr);
  }
  void SetAutoUpgrade(const std::string& value) {
    root_.WriteFile("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/AutoUpgrade", value);
  }

  tarn::test::TempRoot root_;
  tarn::os::FakeClock clock_{1000};
  FakeProcesses processes_;
  FakeSignatures signatures_;
  LibraryScript library_;
  tarn::log::LogCapture log_;
};

bool Eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 1000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done();
}

TEST_F(UpdateTest, StartChoosesTheUiBySdkAndASecondStartIsNoNewUpdate) {
  struct Case { std::string sdk; std::string args; };
  for (const Case& c : {Case{"5.3.0.300", "Dialog_ApiLevel"}, Case{"5.2.9.999", "Upgrade"}, Case{"", "Upgrade"}}) {
    SCOPED_TRACE(c.sdk);
    auto& store = KitStoreManager::GetInstance();
    store.ResetForTesting();
    processes_.starts.clear();
    ResponseStatus status;
    EXPECT_TRUE(store.StartSelfUpdate(status, c.sdk));
    EXPECT_EQ(status.status_code, "907135009");
    ASSERT_EQ(processes_.starts.size(), 1u);
    EXPECT_EQ(processes_.starts[0], root_.path() + "/opt/tarncore/TarnCoreUI " + c.args);
    EXPECT_EQ(store.updateStartTick, 1000u);

    ResponseStatus second;
    log_.Clear();
    EXPECT_TRUE(store.StartSelfUpdate(second, c.sdk));
    EXPECT_EQ(second.status_code, "907135009");
    EXPECT_EQ(second.error_reason, "tarncore update invoke success. ");
    EXPECT_TRUE(log_.Has(Level::Error, "TARN is Updating.(KitStoreManager::StartSelfUpdate)"));
    EXPECT_EQ(processes_.starts.size(), 1u);
  }
}

TEST_F(UpdateTest, FailedStartsLeaveTheSwitchIdle) {
  auto& store = KitStoreManager::GetInstance();
  struct Case { const char* name; std::function<void()> arrange; const char* code; };
  const Case cases[] = {
      {"library false", [&] { library_.checkResult = false; }, "907135008"},
      {"answer without announcement", [&] { library_.answer = R"({"code":0})"; }, "907135008"},
      {"unsigned UI", [&] { signatures_.embedded = false; }, "907135007"},
      {"UI not by maker", [&] { signatures_.maker = false; }, "907135007"},
      {"UI does not start", [&] { processes_.startSucceeds = false; }, "907135007"},
      {"UI replaced after its test",
       [&] {
         signatures_.duringTest = [&] {
           root_.WriteFile("opt/tarncore/other", "ui");
           std::rename(root_.At("opt/tarncore/other").c_str(), root_.At("opt/tarncore/TarnCoreUI").c_str());
         };
       },
       "907135007"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    library_.checkResult = true;
    library_.answer = R"({"updateAppInfo":{}})";
    signatures_.embedded = signatures_.maker = true;
    processes_.startSucceeds = true;
    processes_.starts.clear();
    signatures_.duringTest = nullptr;
    c.arrange();
    ResponseStatus status;
    EXPECT_FALSE(store.StartSelfUpdate(status, "5.3.0.300"));
    EXPECT_EQ(status.status_code, c.code);
    EXPECT_EQ(status.error_code, c.code);
    EXPECT_TRUE(store.updatingKits.empty());
    EXPECT_EQ(store.updateStartTick, 0u);
    if (!signatures_.embedded || !signatures_.maker || signatures_.duringTest) {
      EXPECT_TRUE(processes_.starts.empty());
    }
  }
  EXPECT_FALSE(store.IsUpdating());
}

TEST_F(UpdateTest, AnUpdateExpiresOnlyAfterAMinuteWithoutTheUi) {
  auto& store = KitStoreManager::GetInstance();
  ResponseStatus status;
  clock_.Set(0xFFFFFFF0u);  // the counter wraps during the update
  ASSERT_TRUE(store.StartSelfUpdate(status, ""));

  clock_.Advance(60000);
  EXPECT_TRUE(store.IsUpdating());
  EXPECT_TRUE(processes_.lookups.empty()) << "a fresh update needs no process look-up";

  clock_.Advance(1);
  processes_.uiRunning = true;
  EXPECT_TRUE(store.IsUpdating());
  EXPECT_FALSE(processes_.lookups.empty());
  EXPECT_TRUE(log_.Has(Level::Info, "KitStoreManager.IsUpdating end, kit is updating.(KitStoreManager::IsUpdating)"));

  processes_.uiRunning = false;
  EXPECT_FALSE(store.IsUpdating());
  EXPECT_TRUE(store.updatingKits.empty());
  EXPECT_TRUE(log_.Has(Level::Info,
                       "TarnCore is expired and ui is not existed, unlock updating.(KitStoreManager::IsUpdating)"));
}

// Runs the monitor to its end with the given answers of the network test.
void RunMonitor(std::vector<bool> answers, int& asked) {
  auto& upgrade = UpgradeManager::GetInstance();
  auto& config = ConfigManager::GetInstance();
  const std::uint32_t savedFirst = config.upgradeTimeAfterStart;
  config.upgradeTimeAfterStart = 5;
  upgrade.SetMonitorRetryPeriodForTesting(5);
  asked = 0;
  upgrade.SetConnectivityProbeForTesting([&answers, &asked] {
    return static_cast<std::size_t>(asked) < answers.size() && answers[asked++];
  });
  VantrelThread::ThreadParam param(nullptr, "UpgradeManager::MonitorThread");
  UpgradeManager::MonitorThread(&param);
  config.upgradeTimeAfterStart = savedFirst;
}

TEST_F(UpdateTest, MonitorChecksThreeTimesAtMostAndOwesTheCheckAfterTheThird) {
  auto& upgrade = UpgradeManager::GetInstance();
  int asked = 0;
  struct Case { std::vector<bool> answers; int checks; bool woken; bool owed; };
  for (const Case& c : {Case{{true}, 1, true, false}, Case{{false, true}, 2, true, false},
                        Case{{false, false, true}, 3, true, true}, Case{{false, false, false}, 3, false, true}}) {
    SCOPED_TRACE(c.checks);
    upgrade.ResetForTesting();
    RunMonitor(c.answers, asked);
    EXPECT_EQ(asked, c.checks);
    EXPECT_TRUE(upgrade.monitorDone);
    EXPECT_EQ(tarn::os::WaitForSingle(upgrade.workerEvent, 0) == tarn::os::kWaitObject0, c.woken);
    EXPECT_EQ(upgrade.startupCheckDone.load(), !c.owed);
    // The next connect wakes the worker once, and only when the check is owed.
    upgrade.OnNetworkConnected();
    EXPECT_EQ(tarn::os::WaitForSingle(upgrade.workerEvent, 0) == tarn::os::kWaitObject0, c.owed);
    upgrade.OnNetworkConnected();
    EXPECT_NE(tarn::os::WaitForSingle(upgrade.workerEvent, 0), tarn::os::kWaitObject0);
  }
}

TEST_F(UpdateTest, WorkerRunsTheLibraryOnlyWhenTheSettingAllows) {
  root_.MakeDir("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID");
  auto& upgrade = UpgradeManager::GetInstance();
  VantrelThread::ThreadParam param(nullptr, "UpgradeManager::WorkerThread");
  std::thread worker([&] { UpgradeManager::WorkerThread(&param); });

  // Unset and "True" are off: the worker wakes and leaves the library alone.
  for (const char* value : {"", "True"}) {
    if (*value) SetAutoUpgrade(value);
    const auto wakes = log_.CountContaining("RegKey autoUpgrade Value ");
    upgrade.workerEvent->Set();
    ASSERT_TRUE(Eventually([&] { return log_.CountContaining("RegKey autoUpgrade Value ") > wakes; }));
  }
  EXPECT_EQ(library_.upgrades, 0);
  SetAutoUpgrade("true");
  upgrade.workerEvent->Set();
  ASSERT_TRUE(Eventually([&] { return library_.upgrades == 1; }));
  EXPECT_TRUE(Eventually([&] { return log_.Has(Level::Info, "UpgradeManager. AutoUpgrade invoked.(UpgradeManager::WorkerThread)"); }));

  param.running = false;
  upgrade.workerEvent->Set();
  worker.join();
  EXPECT_EQ(library_.upgrades, 2) << "the last wake still runs before the flag is read";
  EXPECT_TRUE(log_.Has(Level::Info, "UpgradeManager. WorkerThread quit.(UpgradeManager::WorkerThread)"));
}

TEST_F(UpdateTest, ARunningInstallerDoesNotStopTheCleanUp) {
  auto installer = tarn::os::NamedMutex::Create("TarnCore_Install");
  ASSERT_TRUE(installer && installer->owned());
  UpgradeManager::GetInstance().ClearRedundantFile();
  EXPECT_TRUE(log_.Contains("Install package is running. hInstl = "));
  ASSERT_EQ(processes_.removed.size(), 1u);
  EXPECT_EQ(processes_.removed[0], root_.path() + "/var/lib/Vantrel/TARNCORE/Download");
}

class NotifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& config = ConfigManager::GetInstance();
    config.ResetForTesting();
    config.remoteConfig.version = "6.0.1.10";
    config.remoteConfig.level = "7";
  }
  void TearDown() override { ConfigManager::GetInstance().ResetForTesting(); }
  static Json::Value Parse(const std::string& text) {
    Json::Value root;
    Json::Reader().parse(text, root);
    return root;
  }
};

TEST_F(NotifyTest, KitsFollowTheRemoteListAndTheConfiguredSubKits) {
  auto& config = ConfigManager::GetInstance();
  auto subKit = std::make_shared<SubKitConfig>();
  subKit->kitName = "demo";
  subKit->version = "1.2";
  subKit->apiLevel = "3";
  auto kit = std::make_shared<KitConfig>();
  kit->subKits = std::make_shared<SubKitConfigList>(SubKitConfigList{subKit});

  std::string text;
  tarn::update::GetNotifyMsg("com.vantrel.tarn.updateKit", 0, text);
  EXPECT_EQ(Parse(text)["notifyMsg"]["kits"], "") << "an empty remote list";

  config.remoteConfig.packageInfoList->push_back(std::make_shared<PackageInfo>());
  text.clear();
  tarn::update::GetNotifyMsg("com.vantrel.tarn.updateKitUserConfirm", 2, text);
  EXPECT_FALSE(Parse(text)["notifyMsg"].isMember("kits")) << "no configured sub-kits: no member";

  config.kitConfigMap["pkg"] = kit;
  text.clear();
  tarn::update::GetNotifyMsg("com.vantrel.tarn.updateKitUserConfirm", 2, text);
  const Json::Value kits = Parse(text)["notifyMsg"]["kits"];
  ASSERT_EQ(kits.size(), 1u);
  EXPECT_EQ(kits[0]["kitName"].asString(), "demo");
  EXPECT_EQ(kits[0]["kitVersion"].asString(), "1.2");
  EXPECT_EQ(kits[0]["apiLevel"].asString(), "3");
  EXPECT_EQ(Parse(text)["notifyMsg"]["isUserAgree"].asString(), "2");

  config.remoteConfig.packageInfoList.reset();
  text.clear();
  tarn::update::GetNotifyMsg("com.vantrel.tarn.updateKit", 0, text);
  EXPECT_FALSE(Parse(text)["notifyMsg"].isMember("kits")) << "no list at all: no member";

  text.clear();
  tarn::update::GetUpdateKitResultMsg("907135007", text);
  EXPECT_EQ(text,
            R"({"header":{"action":"com.vantrel.tarn.updateKitResult"},"notifyMsg":{"level":"7","updateKitResult":"907135007","version":"6.0.1.10"}})"
            "\n");
}

}  // namespace

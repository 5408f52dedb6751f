// The self-update switch and the silent upgrade, with the clock, processes,
// signatures, the update library and the network test replaced.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "ipc/ipc_test_util.h"
#include "platform/appupdate/upgrade_api.h"
#include "platform/desktop/desktop.h"
#include "platform/log/log_capture.h"
#include "platform/os/clock.h"
#include "platform/os/named_mutex.h"
#include "platform/os/process.h"
#include "platform/security/security.h"
#include "support/fake_launch.h"
#include "support/json.h"
#include "support/temp_root.h"
#include "thread/ThreadManager.h"
#include "update/KitStoreManager.h"
#include "update/UpdateNotify.h"
#include "update/UpgradeManager.h"

using tarn::log::Level;
using tarn::test::Eventually;
using tarn::test::FakeProcesses;
using tarn::test::FakeSessions;
using tarn::test::FakeSignatures;

namespace {

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
    tarn::desktop::SetSessionsForTesting(&sessions_);
    tarn::config::SetInstallDirectoryForTesting(root_.path() + "/opt/tarncore/");
    root_.WriteFile("opt/tarncore/TarnCoreUI", "ui");
    upgrade_.ResetForTesting();
    upgrade_.SetUpgradeApiFactoryForTesting([this] { return std::make_unique<ScriptedUpgradeApi>(&library_); });
    store_.ResetForTesting();
  }
  void TearDown() override {
    upgrade_.SetUpgradeApiFactoryForTesting(nullptr);
    upgrade_.SetConnectivityProbeForTesting(nullptr);
    upgrade_.SetMonitorRetryPeriodForTesting(10000);
    store_.ResetForTesting();
    tarn::config::SetInstallDirectoryForTesting("");
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
    tarn::desktop::SetSessionsForTesting(nullptr);
    tarn::os::SetProcessesForTesting(nullptr);
    tarn::os::SetClockForTesting(nullptr);
  }
  void SetAutoUpgrade(const std::string& value) {
    root_.WriteFile(tarn::test::kVtid + "AutoUpgrade", value);
  }
  bool WorkerWoken() { return tarn::os::WaitForSingle(upgrade_.workerEvent, 0) == tarn::os::kWaitObject0; }

  tarn::test::TempRoot root_;
  tarn::os::FakeClock clock_{1000};
  FakeProcesses processes_;
  FakeSignatures signatures_;
  FakeSessions sessions_;
  LibraryScript library_;
  tarn::log::LogCapture log_;
  UpgradeManager& upgrade_ = UpgradeManager::GetInstance();
  KitStoreManager& store_ = KitStoreManager::GetInstance();
};

TEST_F(UpdateTest, StartChoosesTheUiBySdkAndASecondStartIsNoNewUpdate) {
  for (auto [sdk, args] : std::vector<std::pair<std::string, std::string>>{
           {"5.3.0.300", "Dialog_ApiLevel"}, {"5.2.9.999", "Upgrade"}, {"", "Upgrade"}}) {
    SCOPED_TRACE(sdk);
    store_.ResetForTesting();
    processes_.starts.clear();
    ResponseStatus status;
    EXPECT_TRUE(store_.StartSelfUpdate(status, sdk));
    EXPECT_EQ(status.status_code, "907135009");
    EXPECT_EQ(processes_.starts, std::vector<std::string>{root_.path() + "/opt/tarncore/TarnCoreUI|" + args + "|ui"});
    EXPECT_EQ(store_.updateStartTick, 1000u);

    ResponseStatus second;
    log_.Clear();
    EXPECT_TRUE(store_.StartSelfUpdate(second, sdk));
    EXPECT_EQ(second.status_code, "907135009");
    EXPECT_EQ(second.error_reason, "tarncore update invoke success. ");
    EXPECT_TRUE(log_.Has(Level::Error, "TARN is Updating.(KitStoreManager::StartSelfUpdate)"));
    EXPECT_EQ(processes_.starts.size(), 1u);
  }
}

TEST_F(UpdateTest, FailedStartsLeaveTheSwitchIdle) {
  struct Case {
    const char* name;
    std::function<void()> arrange;
    const char* code;
    bool uiStarted;
  };
  const Case cases[] = {
      {"library false", [&] { library_.checkResult = false; }, "907135008", false},
      {"answer without announcement", [&] { library_.answer = R"({"code":0})"; }, "907135008", false},
      {"unsigned UI", [&] { signatures_.embedded = false; }, "907135007", false},
      {"UI not by maker", [&] { signatures_.maker = false; }, "907135007", false},
      {"UI does not start", [&] { processes_.startWorks = false; }, "907135007", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    library_.checkResult = true;
    library_.answer = R"({"updateAppInfo":{}})";
    signatures_.embedded = signatures_.maker = processes_.startWorks = true;
    signatures_.whileVerifying = nullptr;
    processes_.starts.clear();
    c.arrange();
    ResponseStatus status;
    EXPECT_FALSE(store_.StartSelfUpdate(status, "5.3.0.300"));
    EXPECT_EQ(status.status_code, c.code);
    EXPECT_EQ(status.error_code, c.code);
    EXPECT_TRUE(store_.updatingKits.empty());
    EXPECT_EQ(store_.updateStartTick, 0u);
    EXPECT_EQ(processes_.starts.size(), c.uiStarted ? 1u : 0u);
  }
  EXPECT_FALSE(store_.IsUpdating());

  // Another file put at the UI's path after its test doesn't run: the tested one does.
  signatures_.whileVerifying = [&] {
    root_.WriteFile("opt/tarncore/other", "swapped");
    std::rename(root_.At("opt/tarncore/other").c_str(), root_.At("opt/tarncore/TarnCoreUI").c_str());
  };
  processes_.starts.clear();
  processes_.startWorks = true;
  ResponseStatus status;
  EXPECT_TRUE(store_.StartSelfUpdate(status, ""));
  EXPECT_EQ(processes_.starts, std::vector<std::string>{root_.path() + "/opt/tarncore/TarnCoreUI|Upgrade|ui"});
}

TEST_F(UpdateTest, AnUpdateExpiresOnlyAfterAMinuteWithoutTheUi) {
  ResponseStatus status;
  clock_.Set(0xFFFFFFF0u);  // the counter wraps during the update
  ASSERT_TRUE(store_.StartSelfUpdate(status, ""));

  clock_.Advance(60000);
  EXPECT_TRUE(store_.IsUpdating());
  EXPECT_TRUE(processes_.lookups.empty()) << "a fresh update needs no process look-up";

  clock_.Advance(1);
  processes_.running = "TarnCoreUI";
  EXPECT_TRUE(store_.IsUpdating());
  EXPECT_FALSE(processes_.lookups.empty());
  EXPECT_TRUE(log_.Has(Level::Info, "KitStoreManager.IsUpdating end, kit is updating.(KitStoreManager::IsUpdating)"));

  processes_.running.clear();
  EXPECT_FALSE(store_.IsUpdating());
  EXPECT_TRUE(store_.updatingKits.empty());
  EXPECT_TRUE(log_.Has(Level::Info,
                       "TarnCore is expired and ui is not existed, unlock updating.(KitStoreManager::IsUpdating)"));
}

TEST_F(UpdateTest, MonitorChecksThreeTimesAtMostAndOwesTheCheckAfterTheThird) {
  auto& config = ConfigManager::GetInstance();
  const std::uint32_t savedFirst = config.upgradeTimeAfterStart;
  config.upgradeTimeAfterStart = 5;
  upgrade_.SetMonitorRetryPeriodForTesting(5);
  struct Case {
    std::vector<bool> network;  // the answers of the network test in turn, then false
    int checks;
    bool woken;
    bool owed;
    bool waitFails = false;  // a wait that fails ends nothing: the checks go on
  };
  for (const Case& c : {Case{{true}, 1, true, false}, Case{{false, true}, 2, true, false},
                        Case{{false, false, true}, 3, true, true}, Case{{false, false, false}, 3, false, true},
                        Case{{false, true}, 2, true, false, true}}) {
    SCOPED_TRACE(c.checks);
    upgrade_.ResetForTesting();
    if (c.waitFails) upgrade_.monitorEvent.reset();
    std::size_t asked = 0;
    upgrade_.SetConnectivityProbeForTesting([&] { return asked < c.network.size() && c.network[asked++]; });
    VantrelThread::ThreadParam param(nullptr, "UpgradeManager::MonitorThread");
    UpgradeManager::MonitorThread(&param);
    EXPECT_EQ(asked, static_cast<std::size_t>(c.checks));
    EXPECT_TRUE(upgrade_.monitorDone);
    EXPECT_EQ(WorkerWoken(), c.woken);
    EXPECT_EQ(upgrade_.startupCheckDone.load(), !c.owed);
    // The next connect wakes the worker once, and only when the check is owed.
    upgrade_.OnNetworkConnected();
    EXPECT_EQ(WorkerWoken(), c.owed);
    upgrade_.OnNetworkConnected();
    EXPECT_FALSE(WorkerWoken());
  }
  config.upgradeTimeAfterStart = savedFirst;
}

TEST_F(UpdateTest, WorkerRunsTheLibraryOnlyWhenTheSettingAllows) {
  root_.MakeDir(tarn::test::kVtid);
  VantrelThread::ThreadParam param(nullptr, "UpgradeManager::WorkerThread");
  std::thread worker([&] { UpgradeManager::WorkerThread(&param); });

  // Unset and "True" are off: the worker wakes and leaves the library alone.
  for (const char* value : {"", "True"}) {
    if (*value) SetAutoUpgrade(value);
    const auto wakes = log_.CountContaining("RegKey autoUpgrade Value ");
    upgrade_.workerEvent->Set();
    ASSERT_TRUE(Eventually([&] { return log_.CountContaining("RegKey autoUpgrade Value ") > wakes; }));
  }
  EXPECT_EQ(library_.upgrades, 0);
  SetAutoUpgrade("true");
  upgrade_.workerEvent->Set();
  ASSERT_TRUE(Eventually([&] { return library_.upgrades == 1; }));
  EXPECT_TRUE(Eventually([&] { return log_.Has(Level::Info, "UpgradeManager. AutoUpgrade invoked.(UpgradeManager::WorkerThread)"); }));

  param.running = false;
  upgrade_.workerEvent->Set();
  worker.join();
  EXPECT_EQ(library_.upgrades, 2) << "the last wake still runs before the flag is read";
  EXPECT_TRUE(log_.Has(Level::Info, "UpgradeManager. WorkerThread quit.(UpgradeManager::WorkerThread)"));
}

TEST_F(UpdateTest, ARunningInstallerDoesNotStopTheCleanUp) {
  auto installer = tarn::os::NamedMutex::Create("TarnCore_Install");
  ASSERT_TRUE(installer && installer->owned());
  upgrade_.ClearRedundantFile();
  EXPECT_TRUE(log_.Contains("Install package is running. hInstl = "));
  EXPECT_EQ(processes_.removed, std::vector<std::string>{root_.path() + "/var/lib/Vantrel/TARNCORE/Download"});
}

TEST(UpdateNotifyTest, KitsFollowTheRemoteListAndTheConfiguredSubKits) {
  auto& config = ConfigManager::GetInstance();
  config.ResetForTesting();
  config.remoteConfig.version = "6.0.1.10";
  config.remoteConfig.level = "7";
  auto notify = [](int agree) {
    std::string text;
    tarn::update::GetNotifyMsg("com.vantrel.tarn.updateKitUserConfirm", agree, text);
    return tarn::test::ParseJson(text)["notifyMsg"];
  };
  EXPECT_EQ(notify(0)["kits"], "") << "an empty remote list";
  config.remoteConfig.packageInfoList->push_back(std::make_shared<PackageInfo>());
  EXPECT_FALSE(notify(2).isMember("kits")) << "no configured sub-kits: no member";

  auto subKit = std::make_shared<SubKitConfig>();
  subKit->kitName = "demo";
  subKit->version = "1.2";
  subKit->apiLevel = "3";
  config.kitConfigMap["pkg"] = std::make_shared<KitConfig>(KitConfig{std::make_shared<SubKitConfigList>(1, subKit)});
  EXPECT_EQ(notify(2), tarn::test::ParseJson(R"({"isUserAgree":"2","level":"7","version":"6.0.1.10",
                         "kits":[{"kitName":"demo","kitVersion":"1.2","apiLevel":"3"}]})"));

  config.remoteConfig.packageInfoList.reset();
  EXPECT_FALSE(notify(0).isMember("kits")) << "no list at all: no member";

  std::string text;
  tarn::update::GetUpdateKitResultMsg("907135007", text);
  EXPECT_EQ(text,
            R"({"header":{"action":"com.vantrel.tarn.updateKitResult"},"notifyMsg":{"level":"7","updateKitResult":"907135007","version":"6.0.1.10"}})"
            "\n");
  config.ResetForTesting();
}

}  // namespace

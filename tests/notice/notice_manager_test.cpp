// The launcher's decisions: which mode the notice program gets, when it isn't
// started, and the desktop wait that a logon retries.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/ConfigManager.h"
#include "notice/NoticeManager.h"
#include "platform/log/log_capture.h"
#include "platform/os/named_mutex.h"
#include "platform/os/process.h"
#include "platform/security/security.h"
#include "support/temp_root.h"
#include "thread/ThreadManager.h"

namespace {

using tarn::log::Level;

const std::string kVtid = "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/";

class FakeProcesses : public tarn::os::Processes {
 public:
  std::vector<pid_t> FindByName(const std::string& name) override {
    return desktop && name == "Xwayland" ? std::vector<pid_t>{4242} : std::vector<pid_t>{};
  }
  bool StartProcess(const std::string& path, const std::string& arguments) override {
    std::lock_guard<std::mutex> lock(mutex);
    started.push_back({path, arguments});
    return startWorks;
  }
  bool RemoveTreeDetached(const std::string&) override { return false; }
  std::vector<std::pair<std::string, std::string>> Started() {
    std::lock_guard<std::mutex> lock(mutex);
    return started;
  }

  std::atomic<bool> desktop{false};
  bool startWorks = true;
  std::mutex mutex;
  std::vector<std::pair<std::string, std::string>> started;
};

class FakeSigner : public tarn::security::FileSignatureChecker {
 public:
  bool VerifyMaker(const std::string& path) override {
    checked.push_back(path);
    return makerSigned;
  }
  bool makerSigned = true;
  std::vector<std::string> checked;
};

class NoticeManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDir(kVtid);
    tarn::os::SetProcessesForTesting(&processes_);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&signer_);
    NoticeManager::noticeAttempted = true;
  }
  void TearDown() override {
    VantrelThread::ThreadManager::Instance().WaitAll();
    VantrelThread::ThreadManager::ResetInstanceForTesting();
    tarn::os::SetProcessesForTesting(nullptr);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
    ConfigManager::GetInstance().verifyEnabled = true;
  }

  tarn::test::TempRoot root_;
  FakeProcesses processes_;
  FakeSigner signer_;
  tarn::log::LogCapture log_;
};

TEST_F(NoticeManagerTest, ModeFollowsTheRegistry) {
  struct Case {
    const char* notice;  // nullptr: absent
    const char* agree;   // nullptr: absent, which reads as the current version
    const char* mode;    // nullptr: nothing starts
  } cases[] = {
      {nullptr, "1", "PrivacyNotice"},     {"TRUE", nullptr, "PrivacyNotice"}, {"true", nullptr, nullptr},
      {"true", "", nullptr},               {"true", "63.0.0.0", "PrivacyAgree"}, {"true", "64000000", nullptr},
      {"true", "640.000.001", nullptr},    {"true", "x", "PrivacyAgree"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.notice ? c.notice : "<none>") + "/" + (c.agree ? c.agree : "<none>"));
    std::filesystem::remove(root_.At(kVtid + "PrivacyNotice"));
    std::filesystem::remove(root_.At(kVtid + "PrivacyAgree"));
    if (c.notice) root_.WriteFile(kVtid + "PrivacyNotice", c.notice);
    if (c.agree) root_.WriteFile(kVtid + "PrivacyAgree", c.agree);
    processes_.started.clear();
    log_.Clear();

    NoticeManager::ShowPrivacyNoticeTray();

    const auto started = processes_.Started();
    ASSERT_EQ(started.size(), c.mode ? 1u : 0u);
    EXPECT_EQ(c.mode ? started[0].second : "", c.mode ? c.mode : "");
    EXPECT_TRUE(log_.Has(Level::Info, c.mode ? "start PrivacyNoticeUI succes(NoticeManager::ShowPrivacyNoticeTray)"
                                             : "PrivacyNotice and PrivacyAgree not need start!(NoticeManager::ShowPrivacyNoticeTray)"));
  }
}

TEST_F(NoticeManagerTest, RunningNoticeOrFailedSignatureStartsNothingAndAFailedStartIsLogged) {
  {
    auto held = tarn::os::NamedMutex::Create("Global\\VTFrameworkNoticeMutex");
    ASSERT_TRUE(held && held->owned());
    NoticeManager::ShowPrivacyNoticeTray();
    EXPECT_TRUE(processes_.Started().empty());
    EXPECT_TRUE(log_.Has(Level::Info, "PrivacyNotice or PrivacyAgree has already exists!(NoticeManager::ShowPrivacyNoticeTray)"));
  }
  signer_.makerSigned = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_TRUE(processes_.Started().empty());
  EXPECT_TRUE(log_.Has(Level::Error, "PrivacyNotice verify failed.(NoticeManager::ShowPrivacyNoticeTray)"));
  ASSERT_EQ(signer_.checked.size(), 1u);

  // Without verification the signature isn't asked, and the program beside
  // the running executable starts.
  ConfigManager::GetInstance().verifyEnabled = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_EQ(signer_.checked.size(), 1u);
  const auto started = processes_.Started();
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].first, signer_.checked[0]);
  EXPECT_TRUE(started[0].first.ends_with("/TarnCoreNotice")) << started[0].first;

  processes_.startWorks = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_TRUE(log_.Contains("PrivacyNotice start PrivacyNoticeUI failed. code:"));
}

TEST_F(NoticeManagerTest, DesktopWaitEndedByExitIsRetriedAtLogon) {
  // Logon after a check that reached the notice starts nothing.
  NoticeManager::LogonToCheckPrivacyNotice();
  EXPECT_FALSE(log_.Contains("After start"));

  NoticeManager::StartPrivacyNotice();
  EXPECT_TRUE(log_.Has(Level::Info, "start PrivacyNoticeUI with thread(NoticeManager::StartPrivacyNotice)"));
  VantrelThread::ThreadManager::Instance().WaitAll();
  EXPECT_TRUE(log_.Has(Level::Info, "start notice UI failed, not exsit explorer. maxTimes=300(NoticeManager::StartPrivacyNoticeThreadFun)"));
  EXPECT_FALSE(NoticeManager::noticeAttempted);
  EXPECT_TRUE(processes_.Started().empty());

  VantrelThread::ThreadManager::ResetInstanceForTesting();
  processes_.desktop = true;
  NoticeManager::LogonToCheckPrivacyNotice();
  EXPECT_TRUE(log_.Has(Level::Info, "After start, notice UI check not finish, so start it now.(NoticeManager::LogonToCheckPrivacyNotice)"));
  // A bound for liveness only: the thread finds the desktop at its first look.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!log_.Contains("StartPrivacyNoticeThreadFun end.") && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(processes_.Started().size(), 1u);
  EXPECT_EQ(processes_.Started()[0].second, "PrivacyNotice");
  EXPECT_TRUE(NoticeManager::noticeAttempted);

  // With the desktop already up the notice shows at once, without a thread.
  processes_.started.clear();
  NoticeManager::StartPrivacyNotice();
  EXPECT_EQ(processes_.Started().size(), 1u);
}

}  // namespace

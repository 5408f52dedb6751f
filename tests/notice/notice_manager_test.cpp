// The launcher's decisions: which mode the notice program gets, when it isn't
// started, and the desktop wait that a logon retries.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
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

class FakeProcesses : public tarn::os::Processes {
 public:
  std::vector<pid_t> FindByName(const std::string& name) override {
    if (desktop && name == "Xwayland") return {4242};
    return {};
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
    root_.MakeDir("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID");
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
  void SetValue(const char* name, const std::optional<std::string>& value) {
    if (value) root_.WriteFile(std::string("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/") + name, *value);
  }

  tarn::test::TempRoot root_;
  FakeProcesses processes_;
  FakeSigner signer_;
};

TEST_F(NoticeManagerTest, ModeFollowsTheRegistry) {
  struct Case {
    std::optional<std::string> notice, agree;
    const char* mode;  // nullptr: nothing starts
  };
  const Case cases[] = {
      {std::nullopt, std::string("1"), "PrivacyNotice"},
      {std::string("TRUE"), std::nullopt, "PrivacyNotice"},
      {std::string("true"), std::nullopt, nullptr},
      {std::string("true"), std::string(""), nullptr},
      {std::string("true"), std::string("63.0.0.0"), "PrivacyAgree"},
      {std::string("true"), std::string("64000000"), nullptr},
      {std::string("true"), std::string("640.000.001"), nullptr},
      {std::string("true"), std::string("x"), "PrivacyAgree"},
  };
  for (const Case& c : cases) {
    tarn::test::TempRoot root;
    root.MakeDir("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID");
    const std::string key = "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/";
    if (c.notice) root.WriteFile(key + "PrivacyNotice", *c.notice);
    if (c.agree) root.WriteFile(key + "PrivacyAgree", *c.agree);
    processes_.started.clear();
    tarn::log::LogCapture capture;

    NoticeManager::ShowPrivacyNoticeTray();

    const std::string label = c.notice.value_or("<none>") + "/" + c.agree.value_or("<none>");
    const auto started = processes_.Started();
    if (c.mode == nullptr) {
      EXPECT_TRUE(started.empty()) << label;
      EXPECT_TRUE(capture.Has(Level::Info, "PrivacyNotice and PrivacyAgree not need start!(NoticeManager::ShowPrivacyNoticeTray)")) << label;
    } else {
      ASSERT_EQ(started.size(), 1u) << label;
      EXPECT_EQ(started[0].second, c.mode) << label;
      EXPECT_TRUE(capture.Has(Level::Info, "start PrivacyNoticeUI succes(NoticeManager::ShowPrivacyNoticeTray)"));
    }
  }
}

TEST_F(NoticeManagerTest, AbsentAgreementReadsAsCurrentVersion) {
  SetValue("PrivacyNotice", "true");
  tarn::log::LogCapture capture;
  EXPECT_FALSE(NoticeManager::IsPrivacyAgreeDisplay());
  EXPECT_TRUE(capture.Has(Level::Info, "Agree ver: 64000000 current ver: 64000000(NoticeManager::IsPrivacyAgreeDisplay)"));
}

TEST_F(NoticeManagerTest, RunningNoticeOrFailedSignatureStartsNothing) {
  {
    auto held = tarn::os::NamedMutex::Create("Global\\VTFrameworkNoticeMutex");
    ASSERT_TRUE(held && held->owned());
    tarn::log::LogCapture capture;
    NoticeManager::ShowPrivacyNoticeTray();
    EXPECT_TRUE(processes_.Started().empty());
    EXPECT_TRUE(capture.Has(Level::Info, "PrivacyNotice or PrivacyAgree has already exists!(NoticeManager::ShowPrivacyNoticeTray)"));
  }
  signer_.makerSigned = false;
  {
    tarn::log::LogCapture capture;
    NoticeManager::ShowPrivacyNoticeTray();
    EXPECT_TRUE(processes_.Started().empty());
    EXPECT_TRUE(capture.Has(Level::Error, "PrivacyNotice verify failed.(NoticeManager::ShowPrivacyNoticeTray)"));
    ASSERT_EQ(signer_.checked.size(), 1u);
  }
  // Without verification the signature isn't asked, and the program beside
  // the running executable starts.
  ConfigManager::GetInstance().verifyEnabled = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_EQ(signer_.checked.size(), 1u);
  const auto started = processes_.Started();
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].first, signer_.checked[0]);
  EXPECT_TRUE(started[0].first.ends_with("/TarnCoreNotice")) << started[0].first;
}

TEST_F(NoticeManagerTest, FailedStartIsLoggedWithItsCode) {
  processes_.startWorks = false;
  tarn::log::LogCapture capture;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_TRUE(capture.Contains("PrivacyNotice start PrivacyNoticeUI failed. code:"));
  EXPECT_TRUE(NoticeManager::noticeAttempted);
}

TEST_F(NoticeManagerTest, DesktopWaitEndedByExitIsRetriedAtLogon) {
  tarn::log::LogCapture capture;
  // Logon after a check that reached the notice starts nothing.
  NoticeManager::LogonToCheckPrivacyNotice();
  EXPECT_FALSE(capture.Contains("After start"));

  NoticeManager::StartPrivacyNotice();
  EXPECT_TRUE(capture.Has(Level::Info, "start PrivacyNoticeUI with thread(NoticeManager::StartPrivacyNotice)"));
  VantrelThread::ThreadManager::Instance().WaitAll();
  EXPECT_TRUE(capture.Has(Level::Info, "start notice UI failed, not exsit explorer. maxTimes=300(NoticeManager::StartPrivacyNoticeThreadFun)"));
  EXPECT_FALSE(NoticeManager::noticeAttempted);
  EXPECT_TRUE(processes_.Started().empty());

  VantrelThread::ThreadManager::ResetInstanceForTesting();
  processes_.desktop = true;
  NoticeManager::LogonToCheckPrivacyNotice();
  EXPECT_TRUE(capture.Has(Level::Info, "After start, notice UI check not finish, so start it now.(NoticeManager::LogonToCheckPrivacyNotice)"));
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!capture.Contains("StartPrivacyNoticeThreadFun end.") && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(processes_.Started().size(), 1u);
  EXPECT_EQ(processes_.Started()[0].second, "PrivacyNotice");
  EXPECT_TRUE(NoticeManager::noticeAttempted);
}

TEST_F(NoticeManagerTest, DesktopUpAtStartShowsAtOnce) {
  processes_.desktop = true;
  NoticeManager::StartPrivacyNotice();
  EXPECT_EQ(processes_.Started().size(), 1u);
}

}  // namespace

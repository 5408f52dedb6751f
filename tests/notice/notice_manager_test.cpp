// The launcher's decisions: which mode the notice program gets, when it isn't
// started, and the desktop wait that a logon retries.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/ConfigManager.h"
#include "notice/NoticeManager.h"
#include "platform/log/log_capture.h"
#include "platform/desktop/desktop.h"
#include "platform/os/named_mutex.h"
#include "platform/os/process.h"
#include "platform/security/security.h"
#include "support/eventually.h"
#include "support/fake_launch.h"
#include "support/temp_root.h"
#include "thread/ThreadManager.h"

namespace {

using tarn::log::Level;
using tarn::test::FakeSessions;
using tarn::test::kVtid;

// The file a path or descriptor names, as device and inode.
std::pair<dev_t, ino_t> FileId(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return {st.st_dev, st.st_ino};
}

class FakeProcesses : public tarn::os::Processes {
 public:
  std::vector<pid_t> FindByName(const std::string& name) override {
    return desktop && name == "Xwayland" ? std::vector<pid_t>{4242} : std::vector<pid_t>{};
  }
  bool StartFile(int fd, const std::string& path, const std::string& arguments, const tarn::os::StartAs* as, int) override {
    std::lock_guard<std::mutex> lock(mutex);
    started.push_back({path, arguments});
    startedFile = FileId("/proc/self/fd/" + std::to_string(fd));
    startedAs = as ? as->uid : ::geteuid();
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
  std::pair<dev_t, ino_t> startedFile;
  uid_t startedAs = 0;
};

class FakeSigner : public tarn::security::FileSignatureChecker {
 public:
  bool VerifyMaker(const std::string& path) override {
    checked.push_back(FileId(path));
    return makerSigned;
  }
  bool makerSigned = true;
  std::vector<std::pair<dev_t, ino_t>> checked;
};

class NoticeManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDir(kVtid);
    tarn::os::SetProcessesForTesting(&processes_);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&signer_);
    tarn::desktop::SetSessionsForTesting(&sessions_);
    NoticeManager::noticeAttempted = true;
    // The program beside the running executable, so that it opens.
    notice_ = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "TarnCoreNotice";
    created_ = !std::filesystem::exists(notice_);
    if (created_) std::ofstream(notice_) << "notice";
  }
  void TearDown() override {
    VantrelThread::ThreadManager::Instance().WaitAll();
    VantrelThread::ThreadManager::ResetInstanceForTesting();
    tarn::os::SetProcessesForTesting(nullptr);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
    tarn::desktop::SetSessionsForTesting(nullptr);
    ConfigManager::GetInstance().verifyEnabled = true;
    if (created_) std::filesystem::remove(notice_);
  }

  tarn::test::TempRoot root_;
  FakeProcesses processes_;
  FakeSigner signer_;
  FakeSessions sessions_;
  std::filesystem::path notice_;
  bool created_ = false;
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

  // The file tested is the file started, as the session's user; without
  // verification the signature isn't asked.
  signer_.makerSigned = true;
  NoticeManager::ShowPrivacyNoticeTray();
  ASSERT_EQ(processes_.Started().size(), 1u);
  EXPECT_EQ(processes_.Started()[0].first, notice_.string());
  EXPECT_EQ(processes_.startedFile, signer_.checked.back());
  EXPECT_EQ(processes_.startedFile, FileId(notice_));
  EXPECT_EQ(processes_.startedAs, ::geteuid() == 0 ? 1000u : ::geteuid());
  ConfigManager::GetInstance().verifyEnabled = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_EQ(signer_.checked.size(), 2u);
  EXPECT_EQ(processes_.Started().size(), 2u);

  processes_.startWorks = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_TRUE(log_.Contains("PrivacyNotice start PrivacyNoticeUI failed. code:"));

  // No one at the desktop: no session and no display of our own.
  processes_.startWorks = true;
  sessions_.loggedOn = false;
  const char* display = std::getenv("DISPLAY");
  const std::string saved = display ? display : "";
  ::unsetenv("DISPLAY");
  ::unsetenv("WAYLAND_DISPLAY");
  log_.Clear();
  NoticeManager::ShowPrivacyNoticeTray();
  if (display) ::setenv("DISPLAY", saved.c_str(), 1);
  EXPECT_EQ(processes_.Started().size(), 3u);
  EXPECT_TRUE(log_.Has(Level::Error, "PrivacyNotice start PrivacyNoticeUI failed. code:6(NoticeManager::ShowPrivacyNoticeTray)"));
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
  // The thread finds the desktop at its first look.
  tarn::test::Eventually([&] { return log_.Contains("StartPrivacyNoticeThreadFun end."); }, std::chrono::seconds(30));
  ASSERT_EQ(processes_.Started().size(), 1u);
  EXPECT_EQ(processes_.Started()[0].second, "PrivacyNotice");
  EXPECT_TRUE(NoticeManager::noticeAttempted);

  // With the desktop already up the notice shows at once, without a thread.
  processes_.started.clear();
  NoticeManager::StartPrivacyNotice();
  EXPECT_EQ(processes_.Started().size(), 1u);
}

}  // namespace

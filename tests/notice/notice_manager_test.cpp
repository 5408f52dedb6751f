// The launcher's decisions: which mode the notice program gets, when it isn't
// started, and the desktop wait that a logon retries.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config/ConfigManager.h"
#include "notice/NoticeManager.h"
#include "platform/log/log_capture.h"
#include "platform/desktop/desktop.h"
#include "platform/os/named_mutex.h"
#include "support/eventually.h"
#include "support/fake_launch.h"
#include "support/temp_root.h"
#include "thread/ThreadManager.h"

namespace {

using tarn::log::Level;
using tarn::test::FakeProcesses;
using tarn::test::FakeSessions;
using tarn::test::FakeSignatures;
using tarn::test::kVtid;

// The file a path or descriptor names, as device and inode.
std::pair<dev_t, ino_t> FileId(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return {st.st_dev, st.st_ino};
}

// The fakes, keeping the file each start and each signature check had.
struct Processes : FakeProcesses {
  bool StartFile(int fd, const std::string& path, const std::string& arguments, const tarn::os::StartAs* as,
                 int session) override {
    startedFile = FileId("/proc/self/fd/" + std::to_string(fd));
    return FakeProcesses::StartFile(fd, path, arguments, as, session);
  }
  std::pair<dev_t, ino_t> startedFile;
};
struct Signatures : FakeSignatures {
  bool VerifyMaker(const std::string& path) override {
    checked = FileId(path);
    return FakeSignatures::VerifyMaker(path);
  }
  std::pair<dev_t, ino_t> checked;
};

class NoticeManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDir(kVtid);
    tarn::os::SetProcessesForTesting(&processes_);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&signatures_);
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
  // The notice's path and mode of each start, without the file's first bytes.
  std::vector<std::string> Started() {
    std::vector<std::string> started;
    for (const auto& start : processes_.starts) {
      started.push_back(start.substr(0, start.find('|', start.find('|') + 1)));
    }
    return started;
  }
  std::vector<std::string> Started(const char* mode) const {
    return mode ? std::vector<std::string>{notice_.string() + "|" + mode} : std::vector<std::string>{};
  }

  tarn::test::TempRoot root_;
  Processes processes_;
  Signatures signatures_;
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
    processes_.starts.clear();
    log_.Clear();

    NoticeManager::ShowPrivacyNoticeTray();

    EXPECT_EQ(Started(), Started(c.mode));
    EXPECT_TRUE(log_.Has(Level::Info, c.mode ? "start PrivacyNoticeUI succes(NoticeManager::ShowPrivacyNoticeTray)"
                                             : "PrivacyNotice and PrivacyAgree not need start!(NoticeManager::ShowPrivacyNoticeTray)"));
  }
}

TEST_F(NoticeManagerTest, RunningNoticeOrFailedSignatureStartsNothingAndAFailedStartIsLogged) {
  {
    auto held = tarn::os::NamedMutex::Create("Global\\VTFrameworkNoticeMutex");
    ASSERT_TRUE(held && held->owned());
    NoticeManager::ShowPrivacyNoticeTray();
    EXPECT_TRUE(processes_.starts.empty());
    EXPECT_TRUE(log_.Has(Level::Info, "PrivacyNotice or PrivacyAgree has already exists!(NoticeManager::ShowPrivacyNoticeTray)"));
  }
  signatures_.maker = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_TRUE(processes_.starts.empty());
  EXPECT_TRUE(log_.Has(Level::Error, "PrivacyNotice verify failed.(NoticeManager::ShowPrivacyNoticeTray)"));
  EXPECT_EQ(signatures_.makerChecks, 1);

  // The file tested is the file started, as the session's user; without
  // verification the signature isn't asked.
  signatures_.maker = true;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_EQ(Started(), Started("PrivacyNotice"));
  EXPECT_EQ(processes_.startedFile, signatures_.checked);
  EXPECT_EQ(processes_.startedFile, FileId(notice_));
  EXPECT_EQ(processes_.startedAs, ::geteuid() == 0 ? 1000u : ::geteuid());
  ConfigManager::GetInstance().verifyEnabled = false;
  NoticeManager::ShowPrivacyNoticeTray();
  EXPECT_EQ(signatures_.makerChecks, 2);
  EXPECT_EQ(processes_.starts.size(), 2u);

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
  EXPECT_EQ(processes_.starts.size(), 3u);
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
  EXPECT_TRUE(processes_.starts.empty());

  VantrelThread::ThreadManager::ResetInstanceForTesting();
  processes_.running = "Xwayland";  // the thread that looked has ended
  NoticeManager::LogonToCheckPrivacyNotice();
  EXPECT_TRUE(log_.Has(Level::Info, "After start, notice UI check not finish, so start it now.(NoticeManager::LogonToCheckPrivacyNotice)"));
  // The thread finds the desktop at its first look.
  tarn::test::Eventually([&] { return log_.Contains("StartPrivacyNoticeThreadFun end."); }, std::chrono::seconds(30));
  EXPECT_EQ(Started(), Started("PrivacyNotice"));
  EXPECT_TRUE(NoticeManager::noticeAttempted);

  // With the desktop already up the notice shows at once, without a thread.
  processes_.starts.clear();
  NoticeManager::StartPrivacyNotice();
  EXPECT_EQ(Started(), Started("PrivacyNotice"));
}

}  // namespace

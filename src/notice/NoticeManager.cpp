#include "notice/NoticeManager.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "config/ConfigManager.h"
#include "platform/desktop/desktop.h"
#include "platform/log/tarn_log.h"
#include "platform/os/event.h"
#include "platform/os/last_error.h"
#include "platform/os/named_mutex.h"
#include "platform/os/pinned_file.h"
#include "platform/os/process.h"
#include "platform/os/registry.h"
#include "platform/os/text.h"
#include "platform/security/security.h"
#include "thread/ThreadManager.h"

std::atomic<bool> NoticeManager::noticeAttempted{true};

namespace tarn::notice {

namespace {

// The shells whose presence means a user's desktop is up.
const std::vector<std::string> kDesktopProcesses = {"gnome-shell", "plasmashell", "xfce4-session", "Xorg",
                                                    "Xwayland",    "weston",      "Xvfb",          "explorer.exe"};

// Room of the path buffers the notice path is built in, with the terminator.
constexpr std::size_t kMaxPath = 260;
constexpr std::uint32_t kErrorInsufficientBuffer = 122;
constexpr std::uint32_t kErrorBadPathName = 161;

// The digits of a version text with its dots taken out, read as a decimal
// number the way the C library reads one: leading blanks and a sign allowed,
// reading stops at the first other character, no digits give 0.
long long VersionNumber(const std::string& text) {
  std::string digits;
  for (char c : text) {
    if (c != '.') digits += c;
  }
  return std::strtoll(digits.c_str(), nullptr, 10);
}

}  // namespace

bool DesktopPresent() { return tarn::os::IsAnyProcessRunning(kDesktopProcesses); }

}  // namespace tarn::notice

namespace {

std::uint32_t NoticeThread(void* /*param*/) { return NoticeManager::StartPrivacyNoticeThreadFun(); }

bool StartNoticeThread() {
  return VantrelThread::ThreadManager::Instance().Create(NoticeThread, nullptr, "StartPrivacyNoticeThreadFun",
                                                         false);
}

}  // namespace

void NoticeManager::StartPrivacyNotice() {
  if (tarn::notice::DesktopPresent()) {
    ShowPrivacyNoticeTray();
    return;
  }
  StartNoticeThread();
  CLOGI("NoticeManager::StartPrivacyNotice", "start PrivacyNoticeUI with thread");
}

void NoticeManager::LogonToCheckPrivacyNotice() {
  if (noticeAttempted) return;
  StartNoticeThread();
  CLOGI("NoticeManager::LogonToCheckPrivacyNotice", "After start, notice UI check not finish, so start it now.");
}

std::uint32_t NoticeManager::StartPrivacyNoticeThreadFun() {
  CLOGI("NoticeManager::StartPrivacyNoticeThreadFun", "StartPrivacyNoticeThreadFun begin.");
  int maxTimes = tarn::notice::kDesktopWaitTries;
  auto exitEvent = VantrelThread::ThreadManager::Instance().processExitEvent;
  // The process's end leaves the wait the same way as a wait that ran out.
  while (tarn::os::WaitForSingle(exitEvent, tarn::notice::kDesktopWaitStepMs) != tarn::os::kWaitObject0) {
    if (tarn::notice::DesktopPresent()) {
      ShowPrivacyNoticeTray();
      CLOGI("NoticeManager::StartPrivacyNoticeThreadFun", "StartPrivacyNoticeThreadFun end.");
      return 0;
    }
    if (--maxTimes < 1) break;
  }
  CLOGI("NoticeManager::StartPrivacyNoticeThreadFun",
        "start notice UI failed, not exsit explorer. maxTimes=" << maxTimes);
  noticeAttempted = false;
  return 0;
}

void NoticeManager::ShowPrivacyNoticeTray() {
  noticeAttempted = true;
  // Only a test: the program takes the mutex once it runs, so two checks close
  // together may still both start it.
  if (tarn::os::NamedMutex::Open(tarn::notice::kNoticeMutex)) {
    CLOGI("NoticeManager::ShowPrivacyNoticeTray", "PrivacyNotice or PrivacyAgree has already exists!");
    return;
  }

  std::wstring argument = L"PrivacyNotice";
  std::string privacyNotice;
  ReadVtidRegistryValue("PrivacyNotice", privacyNotice);
  if (privacyNotice == "true") {
    if (!IsPrivacyAgreeDisplay()) {
      CLOGI("NoticeManager::ShowPrivacyNoticeTray", "PrivacyNotice and PrivacyAgree not need start!");
      return;
    }
    argument = L"PrivacyAgree";
  }

  std::wstring path;
  if (!GetPrivacyNoticeExePath(path)) return;

  // Tested and started through one open descriptor: the file started is the file tested.
  const tarn::os::PinnedFile program(tarn::os::WideToUtf8(path));
  if (ConfigManager::GetInstance().verifyEnabled &&
      !VerifyVantrelDigitalSignature(tarn::os::Utf8ToWide(program.ReadPath()))) {
    CLOGE("NoticeManager::ShowPrivacyNoticeTray", "PrivacyNotice verify failed.");
    return;
  }

  if (tarn::desktop::StartOnDesktop(program, tarn::os::WideToUtf8(argument))) {
    CLOGI("NoticeManager::ShowPrivacyNoticeTray", "start PrivacyNoticeUI succes");
  } else {
    CLOGE("NoticeManager::ShowPrivacyNoticeTray",
          "PrivacyNotice start PrivacyNoticeUI failed. code:" << tarn::os::GetLastError());
  }
}

bool NoticeManager::IsPrivacyAgreeDisplay() {
  const std::string current = tarn::notice::kCurrentPrivacyVersion;
  std::string agreed;
  ReadVtidRegistryValue("PrivacyAgree", agreed);
  if (agreed.empty()) agreed = current;
  CLOGI("NoticeManager::IsPrivacyAgreeDisplay", "Agree ver: " << agreed << " current ver: " << current);
  return tarn::notice::VersionNumber(agreed) < tarn::notice::VersionNumber(current);
}

bool NoticeManager::GetPrivacyNoticeExePath(std::wstring& path) {
  char buffer[tarn::notice::kMaxPath * 4] = {};
  const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  std::wstring module;
  std::uint32_t error = 0;
  if (length <= 0) {
    error = static_cast<std::uint32_t>(errno);
  } else {
    module = tarn::os::Utf8ToWide(std::string(buffer, static_cast<std::size_t>(length)));
    // A path that doesn't fit the buffer comes back cut short, which is a failure.
    if (module.size() >= tarn::notice::kMaxPath) error = tarn::notice::kErrorInsufficientBuffer;
  }
  if (error != 0) {
    tarn::os::SetLastError(error);
    CLOGE("NoticeManager::GetPrivacyNoticeExePath", "PrivacyNotice Get module name fail, code: " << error);
    return false;
  }

  const std::size_t slash = module.rfind(L'/');
  if (slash == std::wstring::npos) {
    tarn::os::SetLastError(tarn::notice::kErrorBadPathName);
    CLOGE("NoticeManager::GetPrivacyNoticeExePath",
          "PrivacyNotice remove module name fail, code: " << tarn::notice::kErrorBadPathName);
    return false;
  }
  module.resize(slash + 1);

  module += tarn::os::Utf8ToWide(tarn::notice::kNoticeExecutable);
  if (module.size() >= tarn::notice::kMaxPath) {
    tarn::os::SetLastError(tarn::notice::kErrorInsufficientBuffer);
    CLOGE("NoticeManager::GetPrivacyNoticeExePath",
          "PrivacyNotice append exe dir fail, code: " << tarn::notice::kErrorInsufficientBuffer);
    return false;
  }
  path = module;
  return true;
}

#pragma once
// Decides whether the privacy notice program has to run, in which mode, and
// when a user's desktop is there to show it. Nothing here shows anything or
// remembers the user's answer: the notice program and "Framework.SetRegValue"
// write PrivacyNotice and PrivacyAgree, and the next check reads them.
#include <atomic>
#include <cstdint>
#include <string>

namespace tarn::notice {

// File name of the notice program, beside the running executable.
inline constexpr const char* kNoticeExecutable = "TarnCoreNotice";
// Held by the notice program while it runs.
inline constexpr const char* kNoticeMutex = "Global\\VTFrameworkNoticeMutex";
// The privacy text the platform knows as current.
inline constexpr const char* kCurrentPrivacyVersion = "64000000";
// Tries of the desktop wait, one a second.
inline constexpr int kDesktopWaitTries = 300;
inline constexpr std::uint32_t kDesktopWaitStepMs = 1000;

// A user's shell runs: one of the desktop processes is there.
bool DesktopPresent();

}  // namespace tarn::notice

class NoticeManager {
 public:
  // At container start, on the main thread: shows the notice now when a
  // desktop is up, else waits for one on a thread of its own.
  static void StartPrivacyNotice();
  // On a logon from the service: retries only a desktop wait that ran out.
  static void LogonToCheckPrivacyNotice();
  // The desktop wait; returns 0.
  static std::uint32_t StartPrivacyNoticeThreadFun();
  // Starts the notice program when the registry says it is due.
  static void ShowPrivacyNoticeTray();
  // True when the agreed privacy version is older than the current one.
  static bool IsPrivacyAgreeDisplay();
  // <folder of the running executable>/TarnCoreNotice; false (logged) on failure.
  static bool GetPrivacyNoticeExePath(std::wstring& path);

  // True at start and whenever a check reached ShowPrivacyNoticeTray; false
  // once a desktop wait ended without a desktop. The logon path reads it.
  static std::atomic<bool> noticeAttempted;
};

#pragma once
// What one showing of the privacy notice tells the container: the person's
// answer as "Framework.SetRegValue" requests, and the window's open, operation
// and close events as "Framework.NoticeEvReport" records. Nothing is sent
// before the notice has closed, so a notice whose display went away reports
// nothing.
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "framework_request.h"

namespace tarn::notice {

// Names of the notice's controls in its event records.
inline constexpr const char* kPrivacyButton = "btnPrivacy";
inline constexpr const char* kAgreeButton = "btnOk";
inline constexpr const char* kDeclineButton = "btnCancel";
inline constexpr const char* kSharingSwitch = "evOnOff";

class NoticeSession {
 public:
  // mode: "PrivacyNotice" or "PrivacyAgree". The open time is now.
  explicit NoticeSession(std::string mode);

  // Whether usage statistics are shared now (the registry's ShareAnalysis).
  static bool SharingOn();

  // The person used a control.
  void Operate(const char* control);

  // Sends the answer and the events. Agreeing records the notice (or the new
  // version) as agreed, and the sharing switch when it was changed; declining
  // turns sharing off and leaves the notice to come again; no answer records
  // nothing. sharing: the switch as it was left, if it was shown. True when
  // an answer was given and recorded.
  bool Finish(tools::Choice choice, std::optional<bool> sharing, int waitMs);

 private:
  struct Operation {
    std::string control;
    std::string time;
  };
  std::string mode_;
  std::string openTime_;
  std::vector<Operation> operations_;
};

}  // namespace tarn::notice

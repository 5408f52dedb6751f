#pragma once
// The privacy notice's window.
#include <optional>
#include <string>

#include "framework_request.h"
#include "notice_report.h"

namespace tarn::notice {

struct WindowAnswer {
  tools::Choice choice = tools::Choice::kNone;  // kNone: closed without an answer
  std::optional<bool> sharing;                   // the sharing switch as it was left
};

// Shows the notice in its mode until the person agrees, declines or closes
// it, telling session of each control used. The display must be open.
WindowAnswer ShowNoticeWindow(const std::string& mode, NoticeSession& session);

}  // namespace tarn::notice

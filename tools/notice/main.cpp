// TarnCoreNotice: shows the privacy notice and records the person's answer.
//
// The container starts it with "PrivacyNotice" (the first notice) or
// "PrivacyAgree" (the privacy text changed since the person agreed), on the
// person's desktop. While it runs it holds the notice mutex, so the container
// doesn't start a second one. The answer goes to the container as
// "Framework.SetRegValue", which is how a program without the rights to the
// platform's registry key stores it; when no container answers, the program
// writes the values itself if it may.
#include <iostream>
#include <string>

#include "dialog_window.h"
#include "framework_request.h"
#include "notice/NoticeManager.h"
#include "notice_report.h"
#include "notice_texts.h"
#include "notice_window.h"
#include "platform/log/tarn_log.h"
#include "platform/os/named_mutex.h"

namespace {

constexpr int kExitRecorded = 0;
constexpr int kExitNotRecorded = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoAnswer = 3;
constexpr int kExitAlreadyShown = 4;

#define NLOG(level, where, ...) TARN_LOG(::tarn::log::Level::level, "notice", where, __VA_ARGS__)

const char* kUsage = R"(Usage: TarnCoreNotice PrivacyNotice|PrivacyAgree [--accept|--decline] [--wait MS]

PrivacyNotice  the first privacy notice
PrivacyAgree   the privacy text has changed since the user agreed to it

Without --accept or --decline the notice is shown in a window on the display
(DISPLAY or WAYLAND_DISPLAY), else on the terminal, and the person answers
there; with none of these nothing is recorded and the notice comes again at
the container's next start. --accept and --decline answer as the window's
buttons would.

Accepting records the notice as dealt with and the agreement to the current
privacy version. Declining records nothing of the notice, which comes again
at the next start, and turns the sharing of usage analysis off.

--wait MS  how long to keep trying to reach the container (default 10000)

Exit status: 0 recorded, 1 not recorded, 2 usage, 3 no answer, 4 a notice is
already up.
)";

tarn::tools::Choice AskOnTerminal(const std::string& mode, tarn::notice::NoticeSession& session) {
  const auto& texts = tarn::notice::TextsFor(mode);
  std::cout << texts.heading << "\n\n";
  for (const char* paragraph : texts.paragraphs) std::cout << paragraph << "\n\n";
  const auto choice = tarn::tools::AskOnTerminal("Do you agree to the Tarn Core privacy notice?");
  if (choice != tarn::tools::Choice::kNone) {
    session.Operate(choice == tarn::tools::Choice::kAccept ? tarn::notice::kAgreeButton
                                                           : tarn::notice::kDeclineButton);
  }
  return choice;
}

}  // namespace

int main(int argc, char** argv) {
  tarn::tools::DialogArguments args;
  if (!tarn::tools::ParseDialogArguments(argc, argv, "TarnCoreNotice", {"PrivacyNotice", "PrivacyAgree"}, kUsage, args)) {
    return kExitUsage;
  }
  tarn::log::Open("TarnCoreNotice", 2, 1);
  NLOG(Info, "TarnCoreNotice::main", "TarnCoreNotice begin, mode = " << args.mode);

  auto mutex = tarn::os::NamedMutex::Create(tarn::notice::kNoticeMutex);
  if (mutex && !mutex->owned()) {
    NLOG(Info, "TarnCoreNotice::main", "another notice is up.");
    return kExitAlreadyShown;
  }

  tarn::notice::NoticeSession session(args.mode);
  tarn::tools::Choice choice = args.choice;
  std::optional<bool> sharing;
  const bool terminal = tarn::tools::TerminalAttached();
  if (choice != tarn::tools::Choice::kNone) {
    session.Operate(choice == tarn::tools::Choice::kAccept ? tarn::notice::kAgreeButton
                                                           : tarn::notice::kDeclineButton);
  } else if (tarn::tools::gtk::OpenDisplay()) {
    const auto answer = tarn::notice::ShowNoticeWindow(args.mode, session);
    choice = answer.choice;
    sharing = answer.sharing;
  } else if (terminal) {
    choice = AskOnTerminal(args.mode, session);
  } else {
    NLOG(Info, "TarnCoreNotice::main", "no display, no terminal and no answer given; nothing recorded.");
    return kExitNoAnswer;
  }

  const bool recorded = session.Finish(choice, sharing, args.waitMs);
  NLOG(Info, "TarnCoreNotice::main", "TarnCoreNotice end, recorded = " << recorded);
  if (terminal && choice != tarn::tools::Choice::kNone) {
    std::cout << (recorded ? "Your answer has been recorded.\n" : "Your answer could not be recorded.\n");
  }
  if (choice == tarn::tools::Choice::kNone) return kExitNoAnswer;
  return recorded ? kExitRecorded : kExitNotRecorded;
}

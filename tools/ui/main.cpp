// TarnCoreUI: the update dialogs, windows on the person's desktop.
//
// The container starts it with one of two command lines:
//   Dialog_ApiLevel  asks the user whether to update now, and tells the
//                    container the decision ("907135014" agreed, "907135010"
//                    refused); on agreement the container starts it again with
//   Upgrade          which runs the silent upgrade through the update library
//                    and reports its outcome ("0" done, "907135007" failed)
//                    for the whole platform. Started as the person at the
//                    desktop, it has the install run by its privileged part
//                    (TarnCoreUpdater), which the container starts beside it.
// Both answers go as "Framework.UpdatekitResult". The container counts an
// update as in progress while a process of this name runs.
#include <json/value.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "dialog_window.h"
#include "framework_request.h"
#include "platform/appupdate/upgrade_api.h"
#include "platform/appupdate/upgrade_channel.h"
#include "platform/desktop/desktop.h"
#include "platform/log/tarn_log.h"
#include "ui_texts.h"
#include "ui_window.h"

namespace {

constexpr int kExitReported = 0;
constexpr int kExitNotReported = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoAnswer = 3;

constexpr const char* kUserAgree = "907135014";
constexpr const char* kUserRefuse = "907135010";
constexpr const char* kUpdateFailed = "907135007";
constexpr const char* kUpdateDone = "0";
// The container answers a result it took with this status.
constexpr const char* kInvokeSuccess = "907135009";
// What an update of the platform covers.
constexpr const char* kUpdateKitName = "ALL";

#define ULOG(level, where, ...) TARN_LOG(::tarn::log::Level::level, "ui", where, __VA_ARGS__)

const char* kUsage = R"(Usage: TarnCoreUI Dialog_ApiLevel|Upgrade [--accept|--decline] [--wait MS]

Dialog_ApiLevel  asks whether to update now, in a window on the display
                 (DISPLAY or WAYLAND_DISPLAY), else on the terminal; --accept
                 or --decline answers without asking
Upgrade          runs the update, showing its progress and outcome in a window
                 when there is a display, and reports the outcome; --accept
                 reports a finished update and --decline a failed one without
                 running it

--wait MS  how long to keep trying to reach the container (default 10000)

Exit status: 0 reported, 1 not reported, 2 usage, 3 no answer.
)";

bool Report(const std::string& resultCode, bool withKitName, int waitMs) {
  Json::Value body(Json::objectValue);
  body["resultCode"] = resultCode;
  if (withKitName) body["updateKitName"] = kUpdateKitName;
  const auto answer = tarn::tools::SendFrameworkRequest("Framework.UpdatekitResult", body, "TarnCoreUI", waitMs);
  const bool taken = answer.clientCode == 0 && answer.statusCode == kInvokeSuccess;
  ULOG(Info, "TarnCoreUI::Report",
       "UpdatekitResult resultCode = " << resultCode << " client code = " << answer.clientCode
                                       << " status = " << answer.statusCode);
  return taken;
}

}  // namespace

int main(int argc, char** argv) {
  tarn::tools::DialogArguments args;
  if (!tarn::tools::ParseDialogArguments(argc, argv, "TarnCoreUI", {"Dialog_ApiLevel", "Upgrade"}, kUsage, args)) {
    return kExitUsage;
  }
  const std::string& mode = args.mode;
  tarn::tools::Choice choice = args.choice;
  const int waitMs = args.waitMs;

  tarn::log::Open("TarnCoreUI", 2, 1);
  ULOG(Info, "TarnCoreUI::main", "TarnCoreUI begin, command = " << mode);
  const bool terminal = tarn::tools::TerminalAttached();
  const tarn::ui::UiTexts& texts = tarn::ui::TextsForLocale();
  const bool display = choice == tarn::tools::Choice::kNone && tarn::tools::gtk::OpenDisplay();

  bool reported;
  if (mode == "Dialog_ApiLevel") {
    if (display) {
      choice = tarn::ui::AskToUpdate(texts);
    } else if (choice == tarn::tools::Choice::kNone && terminal) {
      std::cout << texts.title << "\n";
      choice = tarn::tools::AskOnTerminal(texts.needUpdate);
    }
    if (choice == tarn::tools::Choice::kNone) {
      // Unanswered, the container lets the update go a minute after this
      // process has ended.
      ULOG(Info, "TarnCoreUI::main", "no display, no terminal and no answer given; nothing reported.");
      return kExitNoAnswer;
    }
    reported = Report(choice == tarn::tools::Choice::kAccept ? kUserAgree : kUserRefuse, false, waitMs);
  } else if (choice != tarn::tools::Choice::kNone) {
    reported = Report(choice == tarn::tools::Choice::kAccept ? kUpdateDone : kUpdateFailed, true, waitMs);
  } else {
    // The person agreed already: the update is forced past the setting.
    auto upgrade = [&reported, waitMs] {
      bool done;
      // As the person at the desktop, the install is the privileged part's.
      if (const char* channel = std::getenv(tarn::desktop::kPrivilegedChannelVariable)) {
        done = tarn::appupdate::RequestUpgrade(std::atoi(channel));
      } else {
        UpgradeAPI updater;
        updater.Init();
        done = updater.TarnCoreAppSilentUpgrade(true);
      }
      ULOG(Info, "TarnCoreUI::main", "silent upgrade started = " << done);
      reported = Report(done ? kUpdateDone : kUpdateFailed, true, waitMs);
      return done;
    };
    if (display) {
      tarn::ui::ShowUpgrade(texts, upgrade);
    } else {
      if (terminal) std::cout << texts.updating << "\n";
      const bool done = upgrade();
      if (terminal) std::cout << (done ? texts.updated : texts.failed) << "\n";
    }
  }
  ULOG(Info, "TarnCoreUI::main", "TarnCoreUI end, reported = " << reported);
  return reported ? kExitReported : kExitNotReported;
}

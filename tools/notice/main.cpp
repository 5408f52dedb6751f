// TarnCoreNotice: shows the privacy notice and records the user's answer.
//
// The container starts it with "PrivacyNotice" (the first notice) or
// "PrivacyAgree" (the privacy text changed since the user agreed). While it
// runs it holds the notice mutex, so the container doesn't start a second one.
// The answer goes to the container as "Framework.SetRegValue", which is how a
// program without the rights to the platform's registry key stores it; when no
// container answers, the program writes the values itself if it may.
#include <json/value.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "framework_request.h"
#include "notice/NoticeManager.h"
#include "platform/log/tarn_log.h"
#include "platform/os/named_mutex.h"
#include "platform/os/registry.h"

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

Without --accept or --decline the notice is shown on the terminal and the
user answers there; with neither a terminal nor a flag nothing is recorded and
the notice comes again at the container's next start.

Accepting records the notice as dealt with and the agreement to the current
privacy version. Declining records nothing of the notice, which comes again
at the next start, and turns the sharing of usage analysis off.

--wait MS  how long to keep trying to reach the container (default 10000)

Exit status: 0 recorded, 1 not recorded, 2 usage, 3 no answer, 4 a notice is
already up.
)";

const char* kNoticeText = R"(Tarn Core privacy notice

Tarn Core runs the platform services that applications on this computer use.
To provide them it processes the requests those applications send, and, if you
allow it, reports anonymous usage statistics that help improve the service.
You can change the sharing of usage statistics and automatic updates in the
settings at any time.
)";

const char* kAgreeText = R"(Tarn Core privacy notice has changed

The privacy notice of Tarn Core has been updated since you last agreed to it.
Please read the current version before you go on using the service.
)";

struct Value {
  std::string key;
  std::string value;
};

// What the container's settings request would store, written here when no
// container is there to take it; the same rules for the privacy values.
bool WriteDirectly(const Value& setting) {
  auto& registry = tarn::os::Registry();
  const std::string agreed = tarn::notice::kCurrentPrivacyVersion;
  if (setting.key == "PrivacyNotice" &&
      registry.SetValue(tarn::os::kVtidKey, "PrivacyAgree", agreed) != tarn::os::kRegSuccess) {
    return false;
  }
  const std::string value = setting.key == "PrivacyAgree" ? agreed : setting.value;
  return registry.SetValue(tarn::os::kVtidKey, setting.key, value) == tarn::os::kRegSuccess;
}

bool Record(const Value& setting, int waitMs) {
  Json::Value body(Json::objectValue);
  body["key"] = setting.key;
  body["value"] = setting.value;
  const auto answer = tarn::tools::SendFrameworkRequest("Framework.SetRegValue", body, "TarnCoreNotice", waitMs);
  if (answer.clientCode == 0) {
    // The handler's own answer carries returnCode under the request's header;
    // a refusal comes as a status answer without it.
    const bool stored = answer.hasReturnCode ? answer.returnCode : answer.statusCode == "0";
    NLOG(Info, "TarnCoreNotice::Record",
         "SetRegValue key = " << setting.key << " answer = " << answer.statusCode << " stored = " << stored);
    return stored;
  }
  const bool stored = WriteDirectly(setting);
  NLOG(Warn, "TarnCoreNotice::Record",
       "container not reached, code " << answer.clientCode << "; wrote " << setting.key << " directly: " << stored);
  return stored;
}

}  // namespace

int main(int argc, char** argv) {
  tarn::tools::DialogArguments args;
  if (!tarn::tools::ParseDialogArguments(argc, argv, "TarnCoreNotice", {"PrivacyNotice", "PrivacyAgree"}, kUsage, args)) {
    return kExitUsage;
  }
  const std::string& mode = args.mode;
  tarn::tools::Choice choice = args.choice;
  const int waitMs = args.waitMs;

  tarn::log::Open("TarnCoreNotice", 2, 1);
  NLOG(Info, "TarnCoreNotice::main", "TarnCoreNotice begin, mode = " << mode);

  auto mutex = tarn::os::NamedMutex::Create(tarn::notice::kNoticeMutex);
  if (mutex && !mutex->owned()) {
    NLOG(Info, "TarnCoreNotice::main", "another notice is up.");
    return kExitAlreadyShown;
  }

  if (choice == tarn::tools::Choice::kNone && tarn::tools::TerminalAttached()) {
    std::cout << (mode == "PrivacyNotice" ? kNoticeText : kAgreeText) << "\n";
    choice = tarn::tools::AskOnTerminal("Do you agree to the Tarn Core privacy notice?");
  }
  if (choice == tarn::tools::Choice::kNone) {
    NLOG(Info, "TarnCoreNotice::main", "no terminal and no answer given; nothing recorded.");
    return kExitNoAnswer;
  }

  bool recorded;
  if (choice == tarn::tools::Choice::kAccept) {
    // The container stores the agreement at the current version with either key.
    recorded = Record(mode == "PrivacyNotice" ? Value{"PrivacyNotice", "true"}
                                              : Value{"PrivacyAgree", tarn::notice::kCurrentPrivacyVersion},
                      waitMs);
  } else {
    recorded = Record(Value{"ShareAnalysis", "false"}, waitMs);
  }
  NLOG(Info, "TarnCoreNotice::main", "TarnCoreNotice end, recorded = " << recorded);
  if (tarn::tools::TerminalAttached()) {
    std::cout << (recorded ? "Your answer has been recorded.\n" : "Your answer could not be recorded.\n");
  }
  return recorded ? kExitRecorded : kExitNotRecorded;
}

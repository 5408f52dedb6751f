#pragma once
// How the platform's own helper programs talk to the container: a "Framework.*"
// request sent as the platform itself (its client id), retried while the
// container is still coming up, and the few things they read of the answer.
#include <json/value.h>

#include <initializer_list>
#include <string>

namespace tarn::tools {

// The client id of the platform's own processes.
inline constexpr const char* kCoreClientId = "204518762";

struct FrameworkAnswer {
  // 0, or the IPC client's code (9001 container not reachable, 9003 time-out...).
  int clientCode = 0;
  // header.status_code of the answer; empty when none came or it isn't JSON.
  std::string statusCode;
  // returnCode of the answer, where it has one (at the top or in its body).
  bool hasReturnCode = false;
  bool returnCode = false;
  std::string text;
};

// Sends {"header": ..., "body": body} for uri. While the container can't be
// reached or isn't up yet, tries again once a second until waitMs have passed
// (0: one try).
FrameworkAnswer SendFrameworkRequest(const std::string& uri, const Json::Value& body,
                                     const std::string& pkgName, int waitMs);

// Reads an answer's text into the fields above.
void ReadAnswer(const std::string& text, FrameworkAnswer& answer);

// --accept / --decline, or the person's answer in the window or on the terminal.
enum class Choice { kAccept, kDecline, kNone };
// Standard input and output are both a terminal.
bool TerminalAttached();
// The command line both dialog programs share:
//   PROGRAM MODE [--accept|--decline] [--wait MS]
struct DialogArguments {
  std::string mode;
  Choice choice = Choice::kNone;
  int waitMs = 10000;
};
// False (after printing why and the usage to standard error) on a mode not in
// modes or an unknown or malformed argument.
bool ParseDialogArguments(int argc, char** argv, const char* program,
                          std::initializer_list<const char*> modes, const char* usage,
                          DialogArguments& out);

// Prints question and reads a line: y or yes (any case) accepts, anything else
// declines, end of input gives kNone.
Choice AskOnTerminal(const std::string& question);

}  // namespace tarn::tools

#include "framework_request.h"

#include <json/reader.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <thread>

#include "tarncore/client.h"

namespace tarn::tools {

namespace {

constexpr int kAnswerTimeoutMs = 5000;
// The container answers this while its kit manager is still starting.
constexpr const char* kNotInited = "907135011";

FrameworkAnswer SendOnce(tarncore::Client& client, const std::string& uri, const Json::Value& body) {
  const tarncore::Response response = client.Call(uri, body, {}, kAnswerTimeoutMs);
  FrameworkAnswer answer;
  answer.clientCode = response.clientCode;
  answer.text = response.text;
  if (answer.clientCode == tarncore::kOk) ReadAnswer(answer.text, answer);
  return answer;
}

bool WorthRetrying(const FrameworkAnswer& answer) {
  return answer.clientCode == tarncore::kServiceNotUsed || answer.clientCode == tarncore::kResponseError ||
         answer.clientCode == tarncore::kTimeout || answer.statusCode == kNotInited;
}

}  // namespace

void ReadAnswer(const std::string& text, FrameworkAnswer& answer) {
  Json::Value root;
  std::string errors;
  std::istringstream in(text);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors) || !root.isObject()) return;
  const Json::Value& status = root["header"]["status_code"];
  if (status.isString()) answer.statusCode = status.asString();
  for (const Json::Value* holder : {&root, &root["body"]}) {
    if (holder->isObject() && (*holder)["returnCode"].isBool()) {
      answer.hasReturnCode = true;
      answer.returnCode = (*holder)["returnCode"].asBool();
      return;
    }
  }
}

FrameworkAnswer SendFrameworkRequest(const std::string& uri, const Json::Value& body,
                                     const std::string& pkgName, int waitMs) {
  // As the platform itself, and as new a client as the container knows.
  tarncore::Client client({{"app_id", kCoreClientId},
                           {"client_id", kCoreClientId},
                           {"pkg_name", pkgName},
                           {"sdk_version", "5.3.0.300"},
                           {"kitSdkVersion", "5.3.0.300"}});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(waitMs, 0));
  for (;;) {
    FrameworkAnswer answer = SendOnce(client, uri, body);
    if (!WorthRetrying(answer) || std::chrono::steady_clock::now() >= deadline) return answer;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

bool TerminalAttached() { return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1; }

Choice AskOnTerminal(const std::string& question) {
  std::cout << question << " [y/N] " << std::flush;
  std::string line;
  if (!std::getline(std::cin, line)) {
    std::cout << "\n";
    return Choice::kNone;
  }
  std::transform(line.begin(), line.end(), line.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return line == "y" || line == "yes" ? Choice::kAccept : Choice::kDecline;
}

bool ParseDialogArguments(int argc, char** argv, const char* program,
                          std::initializer_list<const char*> modes, const char* usage,
                          DialogArguments& out) {
  if (argc < 2) {
    std::cerr << usage;
    return false;
  }
  out.mode = argv[1];
  bool known = false;
  for (const char* mode : modes) known = known || out.mode == mode;
  if (!known) {
    std::cerr << program << ": unknown mode " << out.mode << "\n\n" << usage;
    return false;
  }
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--accept") {
      out.choice = Choice::kAccept;
    } else if (arg == "--decline") {
      out.choice = Choice::kDecline;
    } else if (arg == "--wait" && i + 1 < argc) {
      char* end = nullptr;
      const long v = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || v < 0 || v > 600000) {
        std::cerr << program << ": --wait needs milliseconds\n";
        return false;
      }
      out.waitMs = static_cast<int>(v);
    } else {
      std::cerr << program << ": unknown argument " << arg << "\n\n" << usage;
      return false;
    }
  }
  return true;
}

}  // namespace tarn::tools

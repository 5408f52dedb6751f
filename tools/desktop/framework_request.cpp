#include "framework_request.h"

#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <thread>

#include "platform/ipc/ipc_client.h"
#include "platform/ipc/ipc_message.h"
#include "platform/os/random.h"

namespace tarn::tools {

namespace {

constexpr int kClientUnreachable = 9001;
constexpr int kClientConnectionLost = 9002;
constexpr int kClientTimeout = 9003;
constexpr int kAnswerTimeoutMs = 5000;
// The container answers this while its kit manager is still starting.
constexpr const char* kNotInited = "907135011";

std::string RandomHex(std::size_t bytes) {
  std::string raw(bytes, '\0');
  tarn::os::CryptGenRandom(static_cast<std::uint32_t>(bytes), reinterpret_cast<std::uint8_t*>(raw.data()));
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (unsigned char b : raw) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string RequestText(const std::string& uri, const Json::Value& body, const std::string& pkgName) {
  Json::Value header(Json::objectValue);
  header["version"] = "1.0";
  header["srv_name"] = "Framework";
  header["api_name"] = uri;
  header["app_id"] = kCoreClientId;
  header["pkg_name"] = pkgName;
  header["sdk_version"] = "5.3.0.300";
  header["session_id"] = RandomHex(8);
  header["transaction_id"] = RandomHex(16);
  header["kitSdkVersion"] = "5.3.0.300";
  header["apiLevel"] = "1";
  header["client_id"] = kCoreClientId;
  Json::Value request(Json::objectValue);
  request["header"] = header;
  request["body"] = body;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, request);
}

FrameworkAnswer SendOnce(const std::string& text) {
  FrameworkAnswer answer;
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  TagIPCMessageItem item = tarn::ipc::ClientRequest(text, tarn::ipc::RandomSyncMessageId());
  answer.clientCode = client.SendMessageSync(item, answer.text, kAnswerTimeoutMs);
  if (answer.clientCode == 0) ReadAnswer(answer.text, answer);
  return answer;
}

bool WorthRetrying(const FrameworkAnswer& answer) {
  return answer.clientCode == kClientUnreachable || answer.clientCode == kClientConnectionLost ||
         answer.clientCode == kClientTimeout || answer.statusCode == kNotInited;
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
  const std::string text = RequestText(uri, body, pkgName);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(waitMs, 0));
  for (;;) {
    FrameworkAnswer answer = SendOnce(text);
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

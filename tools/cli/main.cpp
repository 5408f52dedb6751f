// tarncore: sends requests to the container and prints what comes back.
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ipc/ipc_client.h"
#include "platform/ipc/ipc_message.h"
#include "platform/os/random.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitStatus = 1;
constexpr int kExitUsage = 2;
constexpr int kExitClient = 3;
constexpr int kDefaultTimeoutMs = 5000;

const char* kUsage = R"(Usage:
  tarncore call URI [--body JSON] [--header KEY=VALUE]... [--timeout MS]
  tarncore send --raw TEXT [--timeout MS]
  tarncore listen [--count N] [--timeout MS]
  tarncore --help

call    Sends a well-formed request for URI (the header's api_name) and prints the
        response. The header gets these values unless --header sets them:
          version "1.0", srv_name the part of URI before its first '.',
          api_name URI, app_id and pkg_name "tarncore-cli", sdk_version and
          kitSdkVersion "1.0.0", session_id and transaction_id fresh random ids,
          apiLevel "1", client_id "tarncore-cli".
        --header KEY=VALUE  sets any header key (repeatable); the value is sent
                            as a JSON string, as every header value must be.
        --body JSON         the request's body (default {}).
send    Sends TEXT as the whole message, exactly as given (for malformed input),
        and prints the response.
listen  Prints each broadcast of the container on its own line as it comes.
        --count N           exit after N broadcasts.
        --timeout MS        stop listening after MS milliseconds.

--timeout MS  how long to wait for the response (call, send; default 5000).

The socket is $TARNCORE_ROOT/run/tarncore/ipc.sock (TARNCORE_ROOT defaults to /).

Exit status:
  0  the response's header.status_code is "0" (listen: finished normally)
  1  a response came with another status, or it is not a readable response
  2  usage error
  3  the client failed; its code is printed: 9001 container not reachable,
     9002 connection lost, 9003 time-out, 9004 bad time-out, 9005 inner error
)";

int Usage(const std::string& problem) {
  std::cerr << "tarncore: " << problem << "\n\n" << kUsage;
  return kExitUsage;
}

int ClientFailure(int code) {
  std::cerr << "tarncore: " << code << " " << tarn::ipc::ClientCodeText(code) << "\n";
  return kExitClient;
}

bool ParseInt(const std::string& text, int& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX) return false;
  out = static_cast<int>(v);
  return true;
}

std::string RandomHex(std::size_t bytes) {
  std::vector<uint8_t> buf(bytes);
  tarn::os::CryptGenRandom(static_cast<uint32_t>(bytes), buf.data());
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (uint8_t b : buf) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// Sends text as a request and prints the response; returns the exit status.
int Exchange(const std::string& text, int timeoutMs) {
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  TagIPCMessageItem item = tarn::ipc::ClientRequest(text, tarn::ipc::RandomSyncMessageId());
  std::string response;
  int code = client.SendMessageSync(item, response, timeoutMs);
  if (code != tarn::ipc::kClientOk) return ClientFailure(code);
  std::cout << response;
  if (response.empty() || response.back() != '\n') std::cout << '\n';
  std::cout.flush();

  Json::Value root;
  std::string errs;
  std::istringstream in(response);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errs) || !root.isObject()) {
    return kExitStatus;
  }
  const Json::Value& status = root["header"]["status_code"];
  return status.isString() && status.asString() == "0" ? kExitOk : kExitStatus;
}

int Call(const std::vector<std::string>& args) {
  if (args.empty() || args[0].rfind("--", 0) == 0) return Usage("call needs a URI");
  const std::string uri = args[0];
  Json::Value header(Json::objectValue);
  auto dot = uri.find('.');
  header["version"] = "1.0";
  header["srv_name"] = dot == std::string::npos ? uri : uri.substr(0, dot);
  header["api_name"] = uri;
  header["app_id"] = "tarncore-cli";
  header["pkg_name"] = "tarncore-cli";
  header["sdk_version"] = "1.0.0";
  header["session_id"] = RandomHex(8);
  header["transaction_id"] = RandomHex(16);
  header["kitSdkVersion"] = "1.0.0";
  header["apiLevel"] = "1";
  header["client_id"] = "tarncore-cli";
  Json::Value body(Json::objectValue);
  int timeoutMs = kDefaultTimeoutMs;

  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= args.size()) return false;
      out = args[++i];
      return true;
    };
    std::string v;
    if (a == "--body") {
      if (!value(v)) return Usage("--body needs JSON");
      std::string errs;
      std::istringstream in(v);
      if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &body, &errs)) {
        return Usage("--body is not JSON: " + errs);
      }
    } else if (a == "--header") {
      if (!value(v)) return Usage("--header needs KEY=VALUE");
      auto eq = v.find('=');
      if (eq == std::string::npos || eq == 0) return Usage("--header needs KEY=VALUE, got " + v);
      header[v.substr(0, eq)] = v.substr(eq + 1);
    } else if (a == "--timeout") {
      if (!value(v) || !ParseInt(v, timeoutMs)) return Usage("--timeout needs a number");
    } else {
      return Usage("unknown argument for call: " + a);
    }
  }
  Json::Value request(Json::objectValue);
  request["header"] = header;
  request["body"] = body;
  return Exchange(Compact(request), timeoutMs);
}

int Send(const std::vector<std::string>& args) {
  bool haveRaw = false;
  std::string raw;
  int timeoutMs = kDefaultTimeoutMs;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--raw" && i + 1 < args.size()) {
      raw = args[++i];
      haveRaw = true;
    } else if (args[i] == "--timeout" && i + 1 < args.size()) {
      if (!ParseInt(args[++i], timeoutMs)) return Usage("--timeout needs a number");
    } else {
      return Usage("unknown or incomplete argument for send: " + args[i]);
    }
  }
  if (!haveRaw) return Usage("send needs --raw TEXT");
  return Exchange(raw, timeoutMs);
}

int Listen(const std::vector<std::string>& args) {
  int count = 0;  // 0: no limit
  int timeoutMs = 0;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--count" && i + 1 < args.size()) {
      if (!ParseInt(args[++i], count) || count < 1) return Usage("--count needs a positive number");
    } else if (args[i] == "--timeout" && i + 1 < args.size()) {
      if (!ParseInt(args[++i], timeoutMs) || timeoutMs < 1) {
        return Usage("--timeout needs a positive number");
      }
    } else {
      return Usage("unknown or incomplete argument for listen: " + args[i]);
    }
  }
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  if (!client.IsConnected()) return ClientFailure(tarn::ipc::kClientServiceNotUsed);

  std::mutex mutex;
  std::condition_variable cv;
  int seen = 0;
  client.RegisterMessageCallback(IpcBroadcastMessageCode, [&](TagIPCMessageItem& item) {
    std::string text(item.body ? item.body : "", item.body ? ::strnlen(item.body, item.bodySize) : 0);
    std::lock_guard lock(mutex);
    if (count && seen >= count) return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (text.empty() || text.back() != '\n') std::fputc('\n', stdout);
    std::fflush(stdout);
    ++seen;
    cv.notify_all();
  });

  const auto start = std::chrono::steady_clock::now();
  std::unique_lock lock(mutex);
  for (;;) {
    if (count && seen >= count) break;
    if (timeoutMs && std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(timeoutMs)) {
      lock.unlock();
      client.UnRegisterMessageCallbackAll();
      return count ? ClientFailure(tarn::ipc::kClientTimeout) : kExitOk;
    }
    if (!client.IsConnected()) {
      lock.unlock();
      client.UnRegisterMessageCallbackAll();
      return ClientFailure(tarn::ipc::kClientResponseError);
    }
    cv.wait_for(lock, std::chrono::milliseconds(100));
  }
  lock.unlock();
  client.UnRegisterMessageCallbackAll();
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return Usage("no command");
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help" ||
      (args.size() > 1 && args[1] == "--help")) {
    std::cout << kUsage;
    return kExitOk;
  }
  const std::string command = args[0];
  args.erase(args.begin());
  if (command == "call") return Call(args);
  if (command == "send") return Send(args);
  if (command == "listen") return Listen(args);
  return Usage("unknown command: " + command);
}

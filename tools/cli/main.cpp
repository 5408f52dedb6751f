// tarncore: sends requests to the container and prints what comes back, and
// checks a machine's installation (diagnose).
#include <json/reader.h>
#include <json/value.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "diagnose.h"
#include "tarncore/client.h"

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
  tarncore diagnose [--offline]
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
diagnose
        Checks the machine root: registry values, trusted keys, the remote
        configuration, every package (manifest, library, signature, manifest
        digest, exports), service files and the scope policy, then whether the
        service runs and its socket answers (not with --offline). Prints one
        line per finding with its cause and fix. The installation is the
        registry's Install_Path.

--timeout MS  how long to wait for the response (call, send; default 5000).

The socket is $TARNCORE_ROOT/run/tarncore/ipc.sock (TARNCORE_ROOT defaults to /).

Exit status:
  0  the response's header.status_code is "0" (listen: finished normally;
     diagnose: nothing wrong)
  1  a response came with another status, or it is not a readable response
     (diagnose: something is wrong)
  2  usage error
  3  the client failed; its code is printed: 9001 container not reachable,
     9002 connection lost, 9003 time-out, 9004 bad time-out, 9005 inner error
)";

int Usage(const std::string& problem) {
  std::cerr << "tarncore: " << problem << "\n\n" << kUsage;
  return kExitUsage;
}

int ClientFailure(int code) {
  std::cerr << "tarncore: " << code << " " << tarncore::ClientCodeText(code) << "\n";
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

// Who this program is to the container and its scope policy.
tarncore::Client CliClient() {
  return tarncore::Client({{"app_id", "tarncore-cli"}, {"pkg_name", "tarncore-cli"}, {"client_id", "tarncore-cli"}});
}

// Prints what came back; returns the exit status.
int PrintResponse(const tarncore::Response& response) {
  // An answer that isn't JSON is still shown.
  if (response.clientCode != tarncore::kOk &&
      (response.clientCode != tarncore::kResponseError || response.text.empty())) {
    return ClientFailure(response.clientCode);
  }
  std::cout << response.text;
  if (response.text.empty() || response.text.back() != '\n') std::cout << '\n';
  std::cout.flush();
  return response.Ok() ? kExitOk : kExitStatus;
}

int Call(const std::vector<std::string>& args) {
  if (args.empty() || args[0].rfind("--", 0) == 0) return Usage("call needs a URI");
  const std::string uri = args[0];
  tarncore::Header header;
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
  return PrintResponse(CliClient().Call(uri, body, header, timeoutMs));
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
  return PrintResponse(CliClient().Send(raw, timeoutMs));
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
  tarncore::Client client = CliClient();
  std::mutex mutex;
  std::condition_variable cv;
  int seen = 0;
  const int code = client.Listen([&](const std::string& text) {
    std::lock_guard lock(mutex);
    if (count && seen >= count) return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (text.empty() || text.back() != '\n') std::fputc('\n', stdout);
    std::fflush(stdout);
    ++seen;
    cv.notify_all();
  });
  if (code != tarncore::kOk) return ClientFailure(code);

  const auto start = std::chrono::steady_clock::now();
  int failure = tarncore::kOk;
  std::unique_lock lock(mutex);
  while (!count || seen < count) {
    if (timeoutMs && std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(timeoutMs)) {
      if (count) failure = tarncore::kTimeout;
      break;
    }
    if (!client.IsConnected()) {
      failure = tarncore::kResponseError;
      break;
    }
    cv.wait_for(lock, std::chrono::milliseconds(100));
  }
  lock.unlock();
  client.StopListening();
  return failure == tarncore::kOk ? kExitOk : ClientFailure(failure);
}

int Diagnose(const std::vector<std::string>& args) {
  tarn::diagnose::Options options;
  for (const auto& a : args) {
    if (a == "--offline") {
      options.online = false;
    } else {
      return Usage("unknown argument for diagnose: " + a);
    }
  }
  const tarn::diagnose::Report report = tarn::diagnose::Run(options);
  tarn::diagnose::Print(report, std::cout);
  return report.HasErrors() ? kExitStatus : kExitOk;
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
  if (command == "diagnose") return Diagnose(args);
  return Usage("unknown command: " + command);
}

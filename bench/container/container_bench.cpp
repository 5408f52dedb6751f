// The container as users run it, measured from outside. Lays out a machine
// root as the demo does, starts TarnCoreService (which starts the container,
// the sandboxed scope service and the log file, every line at the default
// level), and drives the container from separate signed client processes;
// beside each api, a raw Unix-socket ping-pong with the same frame sizes
// (server and clients in processes of their own as well).
//
//   container_bench [--programs BUILD_DIR] [--seconds S] [--clients 1,4,16]
//                   [--apis echo,framework] [--no-perf] [--keep-root] [--out FILE]
//
// --programs takes TarnCoreContainer, TarnCoreService, the kits and the scope
// service from another build tree (the clients stay this build's), so two
// versions can be measured the same way. For each api, variant and number of
// clients it reports p50 and p99 latency, throughput, the CPU time per request
// of the server process (the container, or the raw server) and of the scope
// sandbox read from /proc/<pid>/stat, their context switches per request,
// their system calls per request (a second, shorter run with `perf stat`
// attached, so the counting does not weigh on the timed run), and resident
// memory idle and at the end of the run. The result is one JSON document.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/security/signature.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Options {
  std::string programs = TARN_BUILD_DIR;
  double seconds = 3;
  std::vector<int> clients = {1, 4, 16};
  std::vector<std::string> apis = {"echo", "framework"};
  bool perf = true;
  bool keepRoot = false;
  std::string out;
};

[[noreturn]] void Fail(const std::string& why) {
  std::cerr << "container_bench: " << why << std::endl;
  std::exit(1);
}

const std::string kClientId = "bench";
const std::string kClientProgram = TARN_BENCH_CLIENT;

std::string RequestText(const std::string& srvName, const std::string& apiName, const std::string& body) {
  return "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"" + srvName + "\",\"api_name\":\"" + apiName +
         "\",\"app_id\":\"" + kClientId + "\",\"pkg_name\":\"com.vantrel.bench\",\"sdk_version\":\"5.3.0.300\","
         "\"session_id\":\"s1\",\"transaction_id\":\"t1\",\"kitSdkVersion\":\"1\",\"apiLevel\":\"1\","
         "\"client_id\":\"" + kClientId + "\"},\"body\":" + body + "}";
}

// The demo kit's echo, answered inside the call, and a framework api that
// asks the scope service a question whose answer it reads.
struct Api {
  std::string name;
  std::string request;
  std::size_t requestFrame = 0;  // 32-byte header, text, terminating zero
  std::size_t responseFrame = 0;
};

std::vector<Api> Apis(const std::vector<std::string>& names) {
  const std::vector<Api> all = {
      {"echo", RequestText("Demo", "Demo.Echo", "{\"text\":\"hello, kit\"}")},
      {"framework", RequestText("Framework", "Framework.CheckPermission",
                                "{\"reqClinetid\":\"" + kClientId + "\",\"reqPermission\":\"demo.broadcast\"}")}};
  std::vector<Api> chosen;
  for (const auto& name : names) {
    auto it = std::find_if(all.begin(), all.end(), [&](const Api& api) { return api.name == name; });
    if (it == all.end()) Fail("unknown api " + name + " (echo, framework)");
    chosen.push_back(*it);
  }
  return chosen;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), {});
}

void WriteText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// --- processes --------------------------------------------------------------

// A child with its standard input and output on pipes (or /dev/null).
struct Child {
  pid_t pid = -1;
  int in = -1;   // the child's standard input
  int out = -1;  // the child's standard output
  std::string buffered;

  // The next line of output, or nullopt when none came in time.
  std::optional<std::string> Line(std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    for (;;) {
      auto nl = buffered.find('\n');
      if (nl != std::string::npos) {
        std::string line = buffered.substr(0, nl);
        buffered.erase(0, nl + 1);
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
      pollfd p{out, POLLIN, 0};
      if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return std::nullopt;
      char chunk[4096];
      ssize_t n = ::read(out, chunk, sizeof(chunk));
      if (n <= 0) return std::nullopt;
      buffered.append(chunk, static_cast<std::size_t>(n));
    }
  }
  void Send(const std::string& line) {
    [[maybe_unused]] ssize_t n = ::write(in, line.data(), line.size());
  }
  void CloseInput() {
    if (in >= 0) ::close(in);
    in = -1;
  }
  // Waits for the end; kills the child after the limit.
  int Reap(std::chrono::milliseconds limit = 10s) {
    CloseInput();
    int status = -1;
    const auto end = Clock::now() + limit;
    while (pid > 0 && ::waitpid(pid, &status, WNOHANG) == 0) {
      if (Clock::now() >= end) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        break;
      }
      std::this_thread::sleep_for(5ms);
    }
    if (out >= 0) ::close(out);
    out = -1;
    pid = -1;
    return status;
  }
};

Child Spawn(const std::vector<std::string>& argv, bool pipes) {
  int inPipe[2] = {-1, -1}, outPipe[2] = {-1, -1};
  if (pipes && (::pipe2(inPipe, O_CLOEXEC) != 0 || ::pipe2(outPipe, O_CLOEXEC) != 0)) Fail("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (pipes) {
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  } else {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  }
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  Child child;
  const int rc = ::posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) Fail("could not start " + argv[0]);
  if (pipes) {
    ::close(inPipe[0]);
    ::close(outPipe[1]);
    child.in = inPipe[1];
    child.out = outPipe[0];
  }
  return child;
}

// --- what /proc tells about a process -----------------------------------------

struct ProcessSample {
  double userUs = 0;
  double systemUs = 0;
  double switches = 0;  // voluntary and involuntary, over the live threads
};

ProcessSample Sample(pid_t pid) {
  ProcessSample s;
  if (pid <= 0) return s;
  const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
  const auto close = stat.rfind(')');
  if (close != std::string::npos) {
    std::istringstream fields(stat.substr(close + 2));
    std::vector<std::string> f;
    for (std::string field; fields >> field;) f.push_back(field);
    // Fields 14 and 15 of the line, counted from the pid: utime and stime.
    if (f.size() > 12) {
      const double tick = 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
      s.userUs = std::stod(f[11]) * tick;
      s.systemUs = std::stod(f[12]) * tick;
    }
  }
  std::error_code ec;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    std::istringstream status(ReadText(task.path() / "status"));
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 || line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        s.switches += std::stod(line.substr(line.find(':') + 1));
      }
    }
  }
  return s;
}

double ResidentKiB(pid_t pid) {
  std::istringstream status(ReadText("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6));
  }
  return 0;
}

// A child of `parent` running a file whose name ends in `name`; 0 if none.
pid_t FindChild(pid_t parent, const std::string& name) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc", ec)) {
    const std::string id = entry.path().filename();
    if (id.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = ReadText(entry.path() / "stat");
    const auto close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream fields(stat.substr(close + 2));
    std::string state;
    pid_t ppid = 0;
    fields >> state >> ppid;
    if (ppid != parent) continue;
    const std::string exe = fs::read_symlink(entry.path() / "exe", ec).string();
    if (!ec && exe.size() >= name.size() && exe.compare(exe.size() - name.size(), name.size(), name) == 0) {
      return static_cast<pid_t>(std::stol(id));
    }
  }
  return 0;
}

// --- system calls and switches counted by perf ----------------------------------

class PerfCount {
 public:
  static bool Works() {
    Child probe = Spawn(
        {"/usr/bin/env", "perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter", "-o", "/dev/null", "--", "true"},
        false);
    return probe.Reap() == 0;
  }

  PerfCount(pid_t pid, const std::string& file) : file_(file) {
    if (pid > 0) {
      child_ = Spawn({"/usr/bin/env", "perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter,context-switches",
                      "-p", std::to_string(pid), "-o", file},
                     false);
    }
  }

  // Stops counting; event name -> count.
  std::map<std::string, double> Stop() {
    std::map<std::string, double> counts;
    if (child_.pid <= 0) return counts;
    ::kill(child_.pid, SIGINT);
    child_.Reap();
    std::istringstream text(ReadText(file_));
    for (std::string line; std::getline(text, line);) {
      // value,unit,event,...
      std::vector<std::string> f;
      std::istringstream cells(line);
      for (std::string cell; std::getline(cells, cell, ',');) f.push_back(cell);
      if (f.size() >= 3 && !f[0].empty() && std::isdigit(static_cast<unsigned char>(f[0][0]))) {
        counts[f[2]] = std::stod(f[0]);
      }
    }
    return counts;
  }

 private:
  std::string file_;
  Child child_;
};

// --- the machine ---------------------------------------------------------------

struct Machine {
  std::string root;
  std::string install;
  Child service;
  pid_t container = 0;
  pid_t sandbox = 0;

  std::string LogDir() const { return root + "/var/lib/Vantrel/TARNCORE/log/"; }
};

std::string TrustKey(const std::string& pubFile, const std::string& name) {
  auto key = tarn::security::ReadPublicKeyFile(pubFile);
  if (!key || !tarn::security::InstallTrustedKey(*key, tarn::security::KeyKind::kMaker, name)) {
    Fail("could not trust the key " + pubFile);
  }
  return tarn::security::Fingerprint(*key);
}

// The demo's machine: its configuration, the kits and the scope service
// package as the build lays them out, the registry values of a machine where
// the privacy notice was dealt with and no analysis is shared, the build keys
// as maker keys, and a scope policy that knows the benchmark's client.
void LayOut(Machine& m, const Options& options) {
  char tmpl[] = "/tmp/tarn-container-bench.XXXXXX";
  if (!::mkdtemp(tmpl)) Fail("mkdtemp failed");
  m.root = tmpl;
  m.install = m.root + "/opt/tarncore/";
  ::setenv("TARNCORE_ROOT", m.root.c_str(), 1);
  ::unsetenv("SPDLOG_LEVEL");  // the default level: every line the design writes

  const fs::path build = options.programs;
  fs::create_directories(m.install);
  for (const char* program : {"src/container/TarnCoreContainer", "tools/service/TarnCoreService",
                              "tools/notice/TarnCoreNotice", "tools/ui/TarnCoreUI"}) {
    const fs::path from = build / program;
    const bool needed = from.filename() == "TarnCoreContainer" || from.filename() == "TarnCoreService";
    if (!fs::exists(from)) {
      if (needed) Fail(from.string() + " was not built");
      continue;
    }
    fs::copy_file(from, m.install + from.filename().string());
  }
  fs::copy(fs::path(TARN_SOURCE_DIR) / "demo/install/config", m.install + "config", fs::copy_options::recursive);
  std::error_code ec;
  fs::create_directories(m.install + "kits");
  for (const auto& package : fs::directory_iterator(build / "kits", ec)) {
    if (fs::exists(package.path() / "kitManifest.json")) {
      fs::copy(package.path(), m.install + "kits/" + package.path().filename().string(), fs::copy_options::recursive);
    }
  }
  if (!fs::exists(m.install + "kits/com.vantrel.scopeservice/ServiceInfo.json")) {
    Fail("the scope service package is missing in " + (build / "kits").string());
  }

  WriteText(m.root + "/etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nID=debian\n");
  const std::string vtid = m.root + "/etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/";
  const std::map<std::string, std::string> values = {
      {"Install_Path", m.install}, {"Version", "5.3.0"},           {"ShareAnalysis", "false"},
      {"AutoUpgrade", "false"},    {"PrivacyNotice", "true"},      {"PrivacyAgree", "64000000"}};
  for (const auto& [name, value] : values) WriteText(vtid + name, value);
  fs::create_directories(m.root + "/run/tarncore");

  TrustKey((build / "keys/tarn-dev.pub").string(), "tarn-dev");
  TrustKey(TARN_DEV_PUBLIC_KEY, "tarn-bench");
  const std::string fingerprint = tarn::security::FileFingerprint(kClientProgram);
  if (fingerprint.empty()) Fail(kClientProgram + " is not signed");
  WriteText(m.root + "/etc/tarncore/scope-policy.json",
            "{\"clients\":{\"" + kClientId + "\":{\"fingerprints\":[\"" + fingerprint +
                "\"],\"whitelist\":true,\"permissions\":[\"demo.broadcast\"],\"scopes\":[]}}}\n");
}

void Start(Machine& m) {
  m.service = Spawn({m.install + "TarnCoreService", "--no-session-monitor"}, false);
  const std::string serviceLog = m.LogDir() + "TarnCoreService.log";
  const auto end = Clock::now() + 30s;
  while (ReadText(serviceLog).find("service ready") == std::string::npos ||
         !(m.container = FindChild(m.service.pid, "/TarnCoreContainer")) ||
         !(m.sandbox = FindChild(m.container, "/TarnCoreScopeSandbox"))) {
    if (Clock::now() >= end) Fail("the container or its scope sandbox did not come up; logs in " + m.LogDir());
    std::this_thread::sleep_for(50ms);
  }
  // The start-up tail runs a second after the work status; let it pass.
  std::this_thread::sleep_for(2s);
}

void Stop(Machine& m) {
  if (m.service.pid > 0) ::kill(m.service.pid, SIGTERM);
  m.service.Reap(15s);
}

// --- one measured run ------------------------------------------------------------

struct Run {
  std::string api;
  std::string variant;  // "raw" or "container"
  int clients = 0;
  double requests = 0;
  double seconds = 0;
  std::vector<double> micros;
  ProcessSample server, sandbox;
  double serverRssKiB = 0;
  std::map<std::string, double> serverPerf, sandboxPerf;
};

// Starts `count` clients with `argv` (the latency file's path is appended),
// lets them warm up, measures one window and ends them.
Run Measure(const std::vector<std::string>& argv, int count, double seconds, pid_t server, pid_t sandbox,
            const std::string& dir, bool countCalls) {
  std::vector<Child> clients;
  for (int i = 0; i < count; ++i) {
    auto args = argv;
    args.push_back(dir + "/latency-" + std::to_string(i));
    clients.push_back(Spawn(args, true));
  }
  for (auto& c : clients) {
    if (c.Line(60s) != "ready") Fail("a client did not get ready");
  }
  std::optional<PerfCount> serverCount, sandboxCount;
  if (countCalls) {
    serverCount.emplace(server, dir + "/perf-server");
    sandboxCount.emplace(sandbox, dir + "/perf-sandbox");
    std::this_thread::sleep_for(500ms);  // perf attaches
  }
  Run run;
  run.clients = count;
  const ProcessSample server0 = Sample(server), sandbox0 = Sample(sandbox);
  const auto start = Clock::now();
  for (auto& c : clients) c.Send("go\n");
  for (auto& c : clients) {
    auto line = c.Line(std::chrono::milliseconds(static_cast<long>(seconds * 1000) + 30000));
    if (!line || line->rfind("done ", 0) != 0) Fail("a client failed during the run");
    run.requests += std::stod(line->substr(5));
  }
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const ProcessSample server1 = Sample(server), sandbox1 = Sample(sandbox);
  run.server = {server1.userUs - server0.userUs, server1.systemUs - server0.systemUs,
                server1.switches - server0.switches};
  run.sandbox = {sandbox1.userUs - sandbox0.userUs, sandbox1.systemUs - sandbox0.systemUs,
                 sandbox1.switches - sandbox0.switches};
  run.serverRssKiB = ResidentKiB(server);
  if (serverCount) run.serverPerf = serverCount->Stop();
  if (sandboxCount) run.sandboxPerf = sandboxCount->Stop();
  for (int i = 0; i < count; ++i) {
    if (clients[static_cast<std::size_t>(i)].Reap() != 0) Fail("a client ended with a failure");
    const std::string data = ReadText(dir + "/latency-" + std::to_string(i));
    const auto* values = reinterpret_cast<const double*>(data.data());
    run.micros.insert(run.micros.end(), values, values + data.size() / sizeof(double));
  }
  return run;
}

double Percentile(std::vector<double>& sorted, double q) {
  if (sorted.empty()) return 0;
  return sorted[std::min(sorted.size() - 1, static_cast<std::size_t>(q * static_cast<double>(sorted.size())))];
}

Json::Value Report(Run& run, const Run* counted) {
  std::sort(run.micros.begin(), run.micros.end());
  const double n = run.requests > 0 ? run.requests : 1;
  Json::Value r;
  r["api"] = run.api;
  r["variant"] = run.variant;
  r["clients"] = run.clients;
  r["requests"] = run.requests;
  r["throughput"] = run.requests / run.seconds;
  r["p50_us"] = Percentile(run.micros, 0.50);
  r["p99_us"] = Percentile(run.micros, 0.99);
  r["server_cpu_us"] = (run.server.userUs + run.server.systemUs) / n;
  r["server_user_us"] = run.server.userUs / n;
  r["server_switches"] = run.server.switches / n;
  r["server_rss_kib"] = run.serverRssKiB;
  if (run.variant == "container") {
    r["sandbox_cpu_us"] = (run.sandbox.userUs + run.sandbox.systemUs) / n;
    r["sandbox_switches"] = run.sandbox.switches / n;
  }
  if (counted && counted->requests > 0) {
    auto per = [&](const std::map<std::string, double>& counts, const char* event) -> Json::Value {
      auto it = counts.find(event);
      return it == counts.end() ? Json::Value() : Json::Value(it->second / counted->requests);
    };
    r["server_syscalls"] = per(counted->serverPerf, "raw_syscalls:sys_enter");
    if (run.variant == "container") r["sandbox_syscalls"] = per(counted->sandboxPerf, "raw_syscalls:sys_enter");
  }
  return r;
}

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> cells;
  std::istringstream in(text);
  for (std::string cell; std::getline(in, cell, ',');) cells.push_back(cell);
  return cells;
}

std::vector<int> ParseCounts(const std::string& text) {
  std::vector<int> counts;
  for (const auto& cell : SplitList(text)) {
    const int n = std::atoi(cell.c_str());
    if (n <= 0) Fail("--clients takes positive numbers, like 1,4,16");
    counts.push_back(n);
  }
  return counts;
}

Options ParseOptions(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) Fail(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--programs") {
      o.programs = fs::absolute(value()).string();
    } else if (arg == "--seconds") {
      o.seconds = std::atof(value().c_str());
      if (o.seconds <= 0) Fail("--seconds must be positive");
    } else if (arg == "--clients") {
      o.clients = ParseCounts(value());
    } else if (arg == "--apis") {
      o.apis = SplitList(value());
    } else if (arg == "--no-perf") {
      o.perf = false;
    } else if (arg == "--keep-root") {
      o.keepRoot = true;
    } else if (arg == "--out") {
      o.out = value();
    } else {
      Fail("usage: container_bench [--programs BUILD_DIR] [--seconds S] [--clients 1,4,16] "
           "[--apis echo,framework] [--no-perf] [--keep-root] [--out FILE]");
    }
  }
  return o;
}

std::string LoadAverage() {
  std::string text = ReadText("/proc/loadavg");
  return text.substr(0, text.find(' ', text.find(' ', text.find(' ') + 1) + 1));
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  ::signal(SIGPIPE, SIG_IGN);
  const bool perf = options.perf && PerfCount::Works();
  if (options.perf && !perf) std::cerr << "container_bench: perf does not count here; no system call figures\n";

  Json::Value doc;
  doc["context"]["programs"] = options.programs;
  doc["context"]["seconds"] = options.seconds;
  doc["context"]["load_before"] = LoadAverage();

  Machine m;
  LayOut(m, options);
  Start(m);
  doc["context"]["idle_rss_kib"] = ResidentKiB(m.container);
  doc["context"]["sandbox_idle_rss_kib"] = ResidentKiB(m.sandbox);
  const std::string work = m.root + "/bench";
  fs::create_directories(work);

  std::vector<Api> apis = Apis(options.apis);
  std::vector<Child> rawServers;
  for (auto& api : apis) {
    std::cerr << "container_bench: " << api.name << " answer: ";
    Child probe = Spawn({kClientProgram, "probe", api.request}, true);
    auto answerSize = probe.Line(30s);
    if (probe.Reap() != 0 || !answerSize) Fail("no answer to the " + api.name + " request");
    api.requestFrame = 32 + api.request.size() + 1;
    api.responseFrame = 32 + std::stoul(*answerSize) + 1;
    doc["context"]["api"][api.name]["request_frame"] = static_cast<Json::UInt64>(api.requestFrame);
    doc["context"]["api"][api.name]["response_frame"] = static_cast<Json::UInt64>(api.responseFrame);

    const std::string socket = work + "/raw-" + api.name + ".sock";
    rawServers.push_back(Spawn({kClientProgram, "raw-server", socket, std::to_string(api.requestFrame),
                                std::to_string(api.responseFrame)},
                               true));
    if (rawServers.back().Line(10s) != "ready") Fail("the raw server did not start");
  }

  const double countSeconds = std::min(1.0, options.seconds);
  for (int clients : options.clients) {
    for (std::size_t a = 0; a < apis.size(); ++a) {
      const Api& api = apis[a];
      const std::string socket = work + "/raw-" + api.name + ".sock";
      for (const std::string variant : {"raw", "container"}) {
        auto argvFor = [&](double seconds) {
          return variant == "raw"
                     ? std::vector<std::string>{kClientProgram, "raw", socket, std::to_string(api.requestFrame),
                                                std::to_string(api.responseFrame), std::to_string(seconds)}
                     : std::vector<std::string>{kClientProgram, "call", api.request, std::to_string(seconds)};
        };
        const pid_t server = variant == "raw" ? rawServers[a].pid : m.container;
        const pid_t sandbox = variant == "raw" ? 0 : m.sandbox;
        std::cerr << "container_bench: " << api.name << " " << variant << " " << clients << " client(s)\n";
        Run run = Measure(argvFor(options.seconds), clients, options.seconds, server, sandbox, work, false);
        run.api = api.name;
        run.variant = variant;
        std::optional<Run> counted;
        if (perf) counted = Measure(argvFor(countSeconds), clients, countSeconds, server, sandbox, work, true);
        doc["results"].append(Report(run, counted ? &*counted : nullptr));
      }
    }
  }
  doc["context"]["container_rss_kib_at_end"] = ResidentKiB(m.container);
  doc["context"]["load_after"] = LoadAverage();

  for (auto& server : rawServers) {
    ::kill(server.pid, SIGTERM);
    server.Reap();
  }
  Stop(m);
  if (options.keepRoot) {
    std::cerr << "container_bench: machine root kept at " << m.root << "\n";
  } else {
    fs::remove_all(m.root);
  }

  Json::StreamWriterBuilder writer;
  const std::string text = Json::writeString(writer, doc) + "\n";
  if (options.out.empty()) {
    std::cout << text;
  } else {
    std::ofstream(options.out) << text;
  }
  return 0;
}

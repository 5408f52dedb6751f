// Soak under faults: a machine root laid out as the demo's, TarnCoreService
// running the container, and clients calling the demo kit at full speed
// through it. Meanwhile the scope sandbox is killed (the proxy falls back to
// the native build, for the rest of that container's life), a client hangs up
// with a request in flight, and the test kit answers late and twice. At the end
// of each cycle the container is killed and TarnCoreService restarts it.
//
//   tarn_soak [--seconds S] [--cycles N] [--clients C] [--keep-logs 1]
//
// Prints what happened. Fails when a request is lost that was not in flight at
// a kill of the container, when an answer comes twice, when the container dies
// unasked, or when its memory or descriptors grow beyond a small allowance.
// Its figures are a report: nothing here asserts a time.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "integration/programs.h"
#include "platform/ipc/ipc_client.h"
#include "platform/os/text.h"
#include "platform/security/security.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using tarn::test::TempRoot;

namespace {

// Growth of the container's resident memory and open descriptors within one
// life, beyond which the soak fails. The sanitizer build's allocator goes on
// spreading over fresh memory long after the start, more so once the native
// scope build is loaded: from the quarter mark to the end it grew 30-34 MiB
// in 35-second lives and 31-32 MiB in 300-second ones, so a leak shows as
// growth past that, which a longer soak makes plain.
constexpr long kRssAllowanceKiB = 48 * 1024;
constexpr int kFdAllowance = 4;

const Clock::time_point g_start = Clock::now();
double Seconds(Clock::time_point t) { return std::chrono::duration<double>(t - g_start).count(); }

std::string Request(const std::string& api, const std::string& body) {
  const std::string service = api.substr(0, api.find('.'));
  return "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"" + service + "\",\"api_name\":\"" + api +
         "\",\"app_id\":\"soak\",\"pkg_name\":\"soak\",\"sdk_version\":\"5.3.0.300\",\"session_id\":\"s\","
         "\"transaction_id\":\"t\",\"kitSdkVersion\":\"1\",\"apiLevel\":\"1\",\"client_id\":\"soak\"},"
         "\"body\":" + body + "}";
}

std::string StatusOf(const std::string& response) {
  static const std::regex status("\"status_code\":\"([^\"]*)\"");
  std::smatch m;
  return std::regex_search(response, m, status) ? m[1].str() : "none";
}

// The machine root: the built programs and kits, the demo's registry values,
// the build's key trusted, a policy that knows this program.
void LayOut(const TempRoot& root) {
  namespace fs = std::filesystem;
  const std::string install = tarn::test::InstallPrograms(root);
  const std::string build = tarn::test::BuildDir();
  fs::create_directories(install + "kits");
  for (const std::string& package : {build + "/kits/com.vantrel.demo", build + "/kits/com.vantrel.scopeservice",
                                    build + "/tests/kit/kits/com.test.main"}) {
    fs::copy(package, install + "kits/" + fs::path(package).filename().string(), fs::copy_options::recursive);
  }
  root.WriteFile("opt/tarncore/config/remoteConfig.json", R"({"TimerPeriodTarnCoreUpdate": "86400000", "packageInfo": [
    {"packageName": "com.vantrel.demo", "forceUpdate": "0", "subKits": [{"kitName": "Demo"}]},
    {"packageName": "com.test.main", "forceUpdate": "0", "subKits": [{"kitName": "Main"}]},
    {"packageName": "com.vantrel.scopeservice", "forceUpdate": "0", "subKits": []}]})");
  root.WriteFile("etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n");
  for (const auto& [name, value] : std::map<std::string, std::string>{
           {"Install_Path", install}, {"Version", "5.3.0"}, {"ShareAnalysis", "false"},
           {"AutoUpgrade", "false"}, {"PrivacyNotice", "true"}, {"PrivacyAgree", "64000000"}}) {
    root.WriteFile(tarn::test::kVtid + name, value);
  }
  int status = -1;
  tarn::test::WaitExit(tarn::test::Spawn({TARN_SIGN_TOOL, "trust", "--name", "tarn-dev", TARN_DEV_PUBLIC_KEY}), 10s,
                       &status);
  const std::string print = CalcFileThumb(tarn::os::Utf8ToWide("/proc/self/exe"));
  root.WriteFile("etc/tarncore/scope-policy.json",
                 R"({"clients": {"soak": {"fingerprints": [")" + print + R"("], "whitelist": true, "permissions": []}}})");
}

// One kind of request's outcomes.
struct Tally {
  std::map<std::string, long> statuses;  // of answers
  std::map<int, long> clientCodes;       // of requests without an answer
  long sent = 0;
};

struct Loss {
  std::string what;
  double sentAt, endedAt;
  int code;
};

// What the clients saw, and when the container was down.
class Ledger {
 public:
  void Answer(const std::string& kind, const std::string& status) {
    std::lock_guard lock(mutex_);
    ++tallies_[kind].sent;
    ++tallies_[kind].statuses[status];
  }
  void NoAnswer(const std::string& kind, int code, Clock::time_point sent, Clock::time_point ended) {
    std::lock_guard lock(mutex_);
    ++tallies_[kind].sent;
    ++tallies_[kind].clientCodes[code];
    if (kind != "abandoned") losses_.push_back({kind, Seconds(sent), Seconds(ended), code});
  }
  // An answer to a request its client no longer waits for: a late one after the
  // client's time-out, or a second one.
  void Stray(bool late) { ++(late ? lateAnswers_ : strays_); }
  // A kill of the container: sent until `gone`, ended no earlier than `killed`.
  // Until it was `up` again, it could not be reached.
  void ContainerKilled(double killed, double gone, double up) {
    std::lock_guard lock(mutex_);
    Kill& k = kills_.emplace_back();
    k.killed = killed;
    k.gone = gone;
    k.reachable = up;
  }

  // Prints the tallies; false when a loss falls outside every down time.
  bool Report() {
    std::lock_guard lock(mutex_);
    for (const auto& [kind, t] : tallies_) {
      std::printf("  %-10s sent %ld; answers:", kind.c_str(), t.sent);
      for (const auto& [status, n] : t.statuses) std::printf(" status %s x%ld", status.c_str(), n);
      for (const auto& [code, n] : t.clientCodes) std::printf("; client code %d x%ld", code, n);
      std::printf("\n");
    }
    bool ok = strays_ == 0;
    std::printf("  second answers: %ld; answers after the client's time-out: %ld\n", strays_.load(),
                lateAnswers_.load());
    for (Kill& k : kills_) {
      for (const auto& loss : losses_) {
        const bool refused = loss.code == tarn::ipc::kClientServiceNotUsed;
        if (refused ? loss.sentAt >= k.killed && loss.endedAt <= k.reachable
                    : loss.sentAt <= k.gone && loss.endedAt >= k.killed) {
          ++(refused ? k.unreachable : k.inFlight);
          k.firstSent = std::min(k.firstSent, loss.sentAt);
          k.excused.push_back(&loss);
        }
      }
      std::printf("  container killed at %.3f s (gone at %.3f s, answering again at %.3f s): %ld requests lost in "
                  "flight, sent from %.3f s on; %ld not sent while it was down\n",
                  k.killed, k.gone, k.reachable, k.inFlight, k.inFlight ? k.firstSent : k.killed, k.unreachable);
    }
    for (const auto& loss : losses_) {
      const bool excused = std::any_of(kills_.begin(), kills_.end(), [&](const Kill& k) {
        return std::find(k.excused.begin(), k.excused.end(), &loss) != k.excused.end();
      });
      if (excused) continue;
      ok = false;
      std::printf("  LOST %s request, sent at %.3f s, client code %d at %.3f s\n", loss.what.c_str(), loss.sentAt,
                  loss.code, loss.endedAt);
    }
    return ok;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, Tally> tallies_;
  std::vector<Loss> losses_;
  struct Kill {
    double killed = 0, gone = 0, reachable = 0;
    long inFlight = 0, unreachable = 0;
    double firstSent = 1e9;
    std::vector<const Loss*> excused;
  };
  std::vector<Kill> kills_;
  std::atomic<long> strays_{0};
  std::atomic<long> lateAnswers_{0};
};

// Whether the clients send; they hold back while the container restarts.
struct Load {
  std::atomic<bool> stop{false};
  std::atomic<bool> paused{false};
  bool Wait() {
    while (paused && !stop) std::this_thread::sleep_for(5ms);
    return !stop;
  }
};

// A client that sends `text` requests one after the other until stopped.
void Client(int index, const std::string& kind, const std::string& text, Load& load, Ledger& ledger,
            const std::string& mustHold) {
  std::mutex mutex;
  std::set<int32_t> timedOut;
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, true);
  client.RegisterMessageCallback(IpcResponseMessageCode, [&](TagIPCMessageItem& item) {
    std::lock_guard lock(mutex);
    ledger.Stray(timedOut.count(item.syncMessageId) != 0);
  });
  int32_t id = (index + 1) * 10000000;
  std::string response;
  while (load.Wait()) {
    const auto sent = Clock::now();
    // Long enough for a first request's verification on a slow machine.
    const int code = client.SendMessageSync(tarn::ipc::ClientRequest(text, ++id), response, 30000);
    if (code == tarn::ipc::kClientTimeout) {
      std::lock_guard lock(mutex);
      timedOut.insert(id);
    }
    if (code == 0) {
      const std::string status = StatusOf(response);
      const bool holds = mustHold.empty() || response.find(mustHold) != std::string::npos;
      ledger.Answer(kind, holds ? status : status + " (unexpected: " + response.substr(0, 80) + ")");
    } else {
      ledger.NoAnswer(kind, code, sent, Clock::now());
      if (code == tarn::ipc::kClientServiceNotUsed) std::this_thread::sleep_for(10ms);
    }
  }
}

// Hangs up with a late request in flight, again and again.
void Abandoner(Load& load, Ledger& ledger) {
  const std::string text = Request("Demo.Late", "{\"delayMs\":200}");
  for (int32_t id = 900000000; load.Wait(); ++id) {
    TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
    std::string response;
    const auto sent = Clock::now();
    const int code = client.SendMessageSync(tarn::ipc::ClientRequest(text, id), response, 20);
    if (code == 0) {
      ledger.Answer("abandoned", StatusOf(response));
    } else {
      ledger.NoAnswer("abandoned", code, sent, Clock::now());
      if (code == tarn::ipc::kClientServiceNotUsed) std::this_thread::sleep_for(10ms);
    }
  }
}

long StatusKiB(pid_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(key + ":", 0) == 0) return std::atol(line.c_str() + key.size() + 1);
  }
  return -1;
}

// The fewest descriptors open over half a second: connections that clients
// are opening and dropping come and go, and a leaked descriptor stays.
int OpenFds(pid_t pid) {
  int fewest = -1;
  for (int i = 0; i < 10; ++i) {
    std::error_code ec;
    std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", ec);
    if (ec) return -1;
    const int open = static_cast<int>(std::distance(it, std::filesystem::directory_iterator()));
    fewest = fewest < 0 ? open : std::min(fewest, open);
    std::this_thread::sleep_for(50ms);
  }
  return fewest;
}

// The container's child running the sandboxed scope service, 0 if none.
pid_t SandboxOf(pid_t container) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink(entry.path() / "exe", ec);
    if (ec || exe.filename() != "TarnCoreScopeSandbox") continue;
    if (StatusKiB(std::stoi(name), "PPid") == container) return std::stoi(name);
  }
  return 0;
}

// Whether the process has the library of that file name mapped.
bool Maps(pid_t pid, const std::string& library) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/maps");
  for (std::string line; std::getline(in, line);) {
    if (line.size() > library.size() && line.compare(line.size() - library.size(), library.size(), library) == 0) {
      return true;
    }
  }
  return false;
}

pid_t ContainerPid(const TempRoot& root) {
  const std::string log = tarn::test::ReadText(tarn::test::ServiceLog(root));
  const auto at = log.rfind("TarnCoreContainer started pid ");
  return at == std::string::npos ? 0 : std::atoi(log.c_str() + at + 30);
}

// Until the container answers a request: its start is done, this program's
// pid is verified and the scope service is up.
bool Serving(const std::string& echo) {
  TarnCoreIPCMessageClient client(IpcAddressClientSide, false, true);
  const auto end = Clock::now() + 60s;
  std::string response;
  while (Clock::now() < end) {
    if (client.SendMessageSync(tarn::ipc::ClientRequest(echo, 999999999), response, 30000) == 0 &&
        StatusOf(response) == "0") {
      return true;
    }
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

bool WaitUntil(std::chrono::milliseconds limit, const std::function<bool()>& done) {
  const auto end = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 50, cycles = 1, clients = 16, keepLogs = 0;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const int value = std::atoi(argv[i + 1]);
    if (flag == "--seconds") seconds = value;
    if (flag == "--cycles") cycles = value;
    if (flag == "--clients") clients = value;
    if (flag == "--keep-logs") keepLogs = value;
  }
  TempRoot root;
  LayOut(root);
  // Sanitizer reports of the programs go to files the soak looks for at the
  // end. Small quarantines: what a sanitizer build keeps of freed memory
  // reaches its bound early, and later growth is the program's own.
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
    const char* given = std::getenv(name);
    const std::string options = std::string(given ? given : "") + ":log_path=" + root.At("sanitizer") +
                                (name[0] == 'A' ? ":quarantine_size_mb=4:thread_local_quarantine_size_kb=64" : "");
    ::setenv(name, options.c_str(), 1);
  }
  const pid_t service = tarn::test::Spawn({root.At("opt/tarncore/TarnCoreService"), "--no-session-monitor"});
  const std::string serviceLog = tarn::test::ServiceLog(root);
  const std::string ready = "TarnCoreContainer NotifyWorkStatus1";
  const std::string echo = Request("Demo.Echo", "{\"text\":\"soak\"}");
  if (!tarn::test::WaitForText(serviceLog, ready, 60s) || !Serving(echo)) {
    std::printf("soak: the container did not come up\n%s", tarn::test::ReadText(serviceLog).c_str());
    tarn::test::KillAndReap(service);
    return 1;
  }
  std::printf("soak: %d cycle(s) of %d s, %d clients, machine root %s\n", cycles, seconds, clients,
              root.path().c_str());

  Ledger ledger;
  Load load;
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i) threads.emplace_back(Client, i, "echo", echo, std::ref(load), std::ref(ledger), "");
  threads.emplace_back(Client, clients, "late-twice", Request("Main.TwiceLate", "{}"), std::ref(load),
                       std::ref(ledger), "\"late\":\"first\"");
  threads.emplace_back(Abandoner, std::ref(load), std::ref(ledger));

  bool ok = true;
  auto fail = [&](const std::string& why) {
    ok = false;
    std::printf("  FAILED: %s\n", why.c_str());
  };
  auto ms = [](auto d) { return std::chrono::duration<double, std::milli>(d).count(); };
  for (int cycle = 1; cycle <= cycles; ++cycle) {
    const pid_t container = ContainerPid(root);
    const auto begin = Clock::now();
    const auto quarter = std::chrono::seconds(seconds) / 4;
    std::printf("cycle %d: container pid %d\n", cycle, container);
    std::this_thread::sleep_for(quarter);  // the container's memory settles
    const long rssBefore = StatusKiB(container, "VmRSS");
    const int fdsBefore = OpenFds(container);

    // The sandbox dies; the next scope call finds it gone and falls back to
    // the native build, a library the container then has mapped.
    std::this_thread::sleep_for(quarter);
    if (const pid_t sandbox = SandboxOf(container)) {
      const auto killed = Clock::now();
      ::kill(sandbox, SIGKILL);
      if (WaitUntil(30s, [&] { return Maps(container, "/libtarn_scope_service.so"); })) {
        std::printf("  sandbox %d killed at %.3f s; the native build in use %.0f ms later\n", sandbox,
                    Seconds(killed), ms(Clock::now() - killed));
      } else {
        fail("no fallback to the native build within 30 s of the sandbox's kill");
      }
    } else {
      fail("no sandboxed scope service to kill (the proxy fell back before)");
    }

    std::this_thread::sleep_until(begin + 4 * quarter);
    const long rssAfter = StatusKiB(container, "VmRSS");
    const int fdsAfter = OpenFds(container);
    std::printf("  container rss %ld KiB -> %ld KiB (allowance +%ld), open descriptors %d -> %d (allowance +%d)\n",
                rssBefore, rssAfter, kRssAllowanceKiB, fdsBefore, fdsAfter, kFdAllowance);
    if (rssAfter - rssBefore > kRssAllowanceKiB) fail("resident memory grew");
    if (fdsAfter - fdsBefore > kFdAllowance) fail("open descriptors grew");

    // The container dies; TarnCoreService starts another. The clients hold
    // back until it answers, as the first request's verification would make
    // each of them wait anyway.
    load.paused = true;
    const auto killed = Clock::now();
    ::kill(container, SIGKILL);
    WaitUntil(10s, [&] { return !tarn::test::ProcessAlive(container); });
    const auto gone = Clock::now();
    if (!tarn::test::WaitForText(serviceLog, ready, 60s, cycle + 1)) {
      fail("the container was not restarted within 60 s");
      break;
    }
    const auto up = Clock::now();
    const bool serving = Serving(echo);
    const auto answered = Clock::now();
    ledger.ContainerKilled(Seconds(killed), Seconds(gone), Seconds(answered));
    load.paused = false;
    std::printf("  container killed at %.3f s (gone %.0f ms later); a new one ready after %.0f ms, answering "
                "after %.0f ms\n",
                Seconds(killed), ms(gone - killed), ms(up - killed), ms(answered - killed));
    if (!serving) fail("the new container does not answer");
  }
  std::this_thread::sleep_for(2s);  // the last container serving
  load.stop = true;
  for (auto& t : threads) t.join();

  ::kill(service, SIGTERM);
  int status = -1;
  if (!tarn::test::WaitExit(service, 30s, &status) || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fail("TarnCoreService did not stop cleanly");
    tarn::test::KillAndReap(service);
  }
  std::printf("totals:\n");
  if (!ledger.Report()) fail("requests lost outside a kill of the container, or answered twice");
  if (tarn::test::CountText(serviceLog, "TarnCoreContainer ended, exit code 0") != 1) {
    fail("the last container did not end cleanly when the service stopped");
  }
  const int died = tarn::test::CountText(serviceLog, "TarnCoreContainer died");
  if (died != cycles) fail("the container died " + std::to_string(died) + " times, killed " + std::to_string(cycles));
  for (const auto& entry : std::filesystem::directory_iterator(root.path())) {
    if (entry.path().filename().string().rfind("sanitizer", 0) == 0) {
      fail("sanitizer report " + entry.path().string());
      std::printf("%s\n", tarn::test::ReadText(entry.path()).c_str());
    }
  }
  if (!ok || keepLogs) {
    // The machine root goes with this program; its logs stay for a look.
    const std::string kept = tarn::test::BuildDir() + "/soak-logs";
    std::filesystem::remove_all(kept);
    std::filesystem::copy(root.At("var/lib/Vantrel/TARNCORE/log"), kept, std::filesystem::copy_options::recursive);
    std::printf("logs kept in %s\n", kept.c_str());
  }
  std::printf("soak %s\n", ok ? "passed" : "FAILED");
  return ok ? 0 : 1;
}

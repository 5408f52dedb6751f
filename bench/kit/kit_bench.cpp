// The full road of one kit request: client socket, the endpoint's worker, the
// pipeline's gates for a caller already in the whitelist, the kit manager's
// decision tree (dispatch map, force update, load check, API level and
// permission gates), the call into the demo kit's Echo, its answer through the
// callback and the response back to the client. Beside it, in the same run, a
// plain Unix-socket ping-pong that moves frames of the same sizes with one
// blocking thread per connection and no work at all.
//
//   kit_bench [--benchmark_filter=...]
//
// Every log line of the container is written (info threshold, each line
// formatted by its request thread into the log's ring, written out in batches
// by the log's thread; KIT_BENCH_LOG=off
// turns the log off, for comparison only).
// BM_PipelineOnlyEcho answers in the pipeline's seam without the kit runtime,
// to tell the kit runtime's share from the endpoint's. Each variant reports p50 and p99 round-trip latency in
// microseconds over all its clients, and throughput as items per second.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "kit/KitManagerApi.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/ipc/ipc_client.h"
#include "platform/ipc/signature_manager.h"
#include "platform/log/tarn_log.h"
#include "platform/security/signature.h"
#include "round_trip_stats.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string kClientId = "bench";
const std::string kEchoRequest =
    "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"Demo\",\"api_name\":\"Demo.Echo\","
    "\"app_id\":\"bench\",\"pkg_name\":\"bench\",\"sdk_version\":\"5.3.0.300\",\"session_id\":\"s\","
    "\"transaction_id\":\"t\",\"kitSdkVersion\":\"1\",\"apiLevel\":\"1\",\"client_id\":\"" +
    kClientId + "\"},\"body\":{\"text\":\"hello, kit\"}}";

// The pipeline's seam as the container fills it for the kit manager. With
// `direct` set, the seam answers at once with an echo of the same size, which
// shows what the endpoint and the pipeline cost without the kit runtime.
class KitGates : public DefaultRequestGates {
 public:
  bool IsInitComplete() override { return KitManagerApi::GetInstance().isInitComplete; }
  void Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* callback,
              ResponseStatus& status) override {
    if (direct.load(std::memory_order_relaxed)) {
      std::string answer = "{\"echo\":" + request.body + "}";
      callback->Excute(answer);
      return;
    }
    KitManagerApi::GetInstance().Invoke(header, request, callback, status);
  }
  std::atomic<bool> direct{false};
};

std::string g_root;
std::string g_rawPath;
KitGates g_gates;
std::size_t g_requestFrame = 0;   // bytes of the echo request's frame
std::size_t g_responseFrame = 0;  // bytes of its response's frame

using Samples = tarn::bench::RoundTrips;

Samples g_kitSamples;
Samples g_pipelineSamples;
Samples g_rawSamples;

void EchoRoundTrips(benchmark::State& state, bool direct, Samples& samples) {
  if (state.thread_index() == 0) g_gates.direct = direct;
  samples.Start();
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  std::string text = kEchoRequest;
  std::string response;
  std::vector<double> micros;
  micros.reserve(1 << 16);
  // Ids must not collide between clients: the callback table is keyed by them.
  int32_t id = (state.thread_index() + 1) * 10000000;
  for (auto _ : state) {
    TagIPCMessageItem item = tarn::ipc::ClientRequest(text, ++id);
    const auto start = Clock::now();
    const int code = client.SendMessageSync(item, response, 10000);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (code != 0 || response.find("\"status_code\":\"0\"") == std::string::npos) {
      state.SkipWithError(("no echo: client code " + std::to_string(code) + " " + response).c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  samples.Report(state, micros);
}

void BM_KitEcho(benchmark::State& state) { EchoRoundTrips(state, false, g_kitSamples); }
void BM_PipelineOnlyEcho(benchmark::State& state) { EchoRoundTrips(state, true, g_pipelineSamples); }

// --- the plain ping-pong -------------------------------------------------

void BM_RawUnixPingPong(benchmark::State& state) {
  tarn::bench::RawPingPongClient(state, g_rawPath, g_requestFrame, g_responseFrame, g_rawSamples);
}

BENCHMARK(BM_RawUnixPingPong)->Threads(1)->Threads(4)->Threads(16)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_KitEcho)->Threads(1)->Threads(4)->Threads(16)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_PipelineOnlyEcho)->Threads(1)->Threads(4)->Threads(16)->UseRealTime()->MinTime(2.0);

// A machine root with the demo installation: configuration, the demo kits as
// the build laid them out, and the build's key trusted.
bool PrepareMachine() {
  char tmpl[] = "/tmp/tarn-kit-bench.XXXXXX";
  if (!::mkdtemp(tmpl)) return false;
  g_root = tmpl;
  ::setenv("TARNCORE_ROOT", g_root.c_str(), 1);
  const std::string install = g_root + "/opt/tarncore/";
  std::error_code ec;
  fs::create_directories(install + "config", ec);
  fs::create_directories(install + "kits", ec);
  fs::copy_file(TARN_DEMO_CONFIG, install + "config/remoteConfig.json", ec);
  if (ec) return false;
  fs::copy(TARN_DEMO_KITS_DIR "/com.vantrel.demo", install + "kits/com.vantrel.demo", fs::copy_options::recursive,
           ec);
  if (ec) return false;
  tarn::config::SetInstallDirectoryForTesting(install);
  auto key = tarn::security::ReadPublicKeyFile(TARN_DEV_PUBLIC_KEY);
  return key && tarn::security::InstallTrustedKey(*key, tarn::security::KeyKind::kMaker, "tarn-dev");
}

}  // namespace

int main(int argc, char** argv) {
  if (!PrepareMachine()) {
    std::fprintf(stderr, "kit_bench: could not lay out the machine root\n");
    return 1;
  }
  tarn::log::Open("kit_bench", 2, 10);
  const char* logSetting = std::getenv("KIT_BENCH_LOG");
  tarn::log::SetThreshold(logSetting && std::string(logSetting) == "off" ? tarn::log::Level::Off
                                                                        : tarn::log::Level::Info);
  RequestGates::Install(&g_gates);
  SignatureManager::GetInstance()->AddSignatureWhiteList(static_cast<uint32_t>(::getpid()), kClientId);
  ServerManager::GetInstance().ServerInit();
  if (!KitManagerApi::GetInstance().Init()) {
    std::fprintf(stderr, "kit_bench: the kits did not come up; see %s\n", tarn::log::LogFilePath().c_str());
    return 1;
  }

  // One real round trip gives the sizes the ping-pong moves.
  {
    TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
    std::string text = kEchoRequest;
    std::string response;
    TagIPCMessageItem item = tarn::ipc::ClientRequest(text, 1);
    if (client.SendMessageSync(item, response, 10000) != 0) {
      std::fprintf(stderr, "kit_bench: no answer to the first echo\n");
      return 1;
    }
    std::fprintf(stderr, "kit_bench: echo answer: %s\n", response.c_str());
    g_requestFrame = 32 + text.size() + 1;
    g_responseFrame = 32 + response.size() + 1;
  }

  g_rawPath = g_root + "/raw.sock";
  const int listenFd = tarn::bench::Listen(g_rawPath);
  if (listenFd < 0) return 1;
  std::thread(tarn::bench::ServeRawPingPong, listenFd, g_requestFrame, g_responseFrame).detach();

  // The container's side is up with its kits loaded and nobody asking.
  benchmark::AddCustomContext("idle_rss_kib", std::to_string(static_cast<long>(tarn::bench::ResidentKiB())));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  FlushTarnLogFile();
  std::fprintf(stderr, "kit_bench: log %s\n", tarn::log::LogFilePath().c_str());
  ServerManager::GetInstance().ServerUnInit();
  ::shutdown(listenFd, SHUT_RDWR);
  if (!std::getenv("KIT_BENCH_KEEP_ROOT")) {
    std::error_code ec;
    fs::remove_all(g_root, ec);
  }
  return 0;
}

// Round trip of one request through the container's endpoint (socket, worker
// pool, pipeline, response), beside a plain Unix-socket ping-pong that moves the
// same bytes with one blocking thread per connection and no work at all.
//
//   ipc_bench [--benchmark_filter=...]
//
// The pipeline runs with its log threshold at "off" so that the figures measure
// the endpoint, not the log; Logged variants keep the container's info level
// writing to a log file.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "pipeline/ConnectManager.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/ipc/ipc_client.h"
#include "platform/ipc/signature_manager.h"
#include "platform/log/tarn_log.h"
#include "platform/security/security.h"
#include "round_trip_stats.h"

namespace {

const std::string kEmptyRequest = "{}";
const std::string kGoodRequest =
    "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"Bench\",\"api_name\":\"Bench.Ping\","
    "\"app_id\":\"bench\",\"pkg_name\":\"bench\",\"sdk_version\":\"1.0.0\",\"session_id\":\"s\","
    "\"transaction_id\":\"t\",\"kitSdkVersion\":\"1.0.0\",\"apiLevel\":\"1\",\"client_id\":\"bench\"},"
    "\"body\":{}}";

// Answers every request at once with an empty result, as the cheapest kit would.
class AnsweringGates : public DefaultRequestGates {
 public:
  void Invoke(RequestHeader&, ConvertedRequest&, ServerResCallBack* callback, ResponseStatus&) override {
    std::string result = "{}";
    callback->Excute(result);
  }
  int CheckCertFingerprint(const std::string&, uint32_t, const std::string&, const std::string&,
                           const std::string&) override {
    return 0;
  }
};

class TrustingVerifier : public SignatureVerifyer {
 public:
  int Verify(uint32_t) override { return 0; }
};

std::string g_root;
std::string g_rawPath;
AnsweringGates g_gates;
TrustingVerifier g_verifier;

using Clock = std::chrono::steady_clock;

void PipelineRoundTrip(benchmark::State& state, const std::string& text, tarn::log::Level level,
                       tarn::bench::RoundTrips& samples) {
  if (state.thread_index() == 0) tarn::log::SetThreshold(level);
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  std::string response;
  std::vector<double> micros;
  micros.reserve(1 << 16);
  samples.Start();
  int32_t id = state.thread_index() * 10000000;
  for (auto _ : state) {
    TagIPCMessageItem item = tarn::ipc::ClientRequest(text, ++id);
    const auto start = Clock::now();
    int code = client.SendMessageSync(item, response, 10000);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (code != 0) {
      state.SkipWithError(("client code " + std::to_string(code)).c_str());
      break;
    }
    benchmark::DoNotOptimize(response.data());
  }
  state.SetItemsProcessed(state.iterations());
  samples.Report(state, micros);
  state.counters["response_bytes"] =
      benchmark::Counter(static_cast<double>(response.size() + 1), benchmark::Counter::kAvgThreads);
}

tarn::bench::RoundTrips g_refusedSamples;
tarn::bench::RoundTrips g_answeredSamples;
tarn::bench::RoundTrips g_loggedSamples;
tarn::bench::RoundTrips g_rawSamples;

void BM_Pipeline_EmptyObjectRefused(benchmark::State& state) {
  PipelineRoundTrip(state, kEmptyRequest, tarn::log::Level::Off, g_refusedSamples);
}
void BM_Pipeline_VerifiedRequestAnswered(benchmark::State& state) {
  PipelineRoundTrip(state, kGoodRequest, tarn::log::Level::Off, g_answeredSamples);
}
void BM_Pipeline_VerifiedRequestAnswered_Logged(benchmark::State& state) {
  PipelineRoundTrip(state, kGoodRequest, tarn::log::Level::Info, g_loggedSamples);
}

// --- the plain ping-pong -------------------------------------------------

std::size_t g_pongSize = 0;  // bytes of the "{}" answer's frame

void BM_RawUnixPingPong(benchmark::State& state) {
  tarn::bench::RawPingPongClient(state, g_rawPath, 32 + kEmptyRequest.size() + 1, g_pongSize, g_rawSamples);
  state.counters["response_bytes"] =
      benchmark::Counter(static_cast<double>(g_pongSize - 32), benchmark::Counter::kAvgThreads);
}

BENCHMARK(BM_RawUnixPingPong)->Threads(1)->Threads(4)->Threads(8)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Pipeline_EmptyObjectRefused)->Threads(1)->Threads(4)->Threads(8)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Pipeline_VerifiedRequestAnswered)->Threads(1)->Threads(4)->Threads(8)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Pipeline_VerifiedRequestAnswered_Logged)->Threads(1)->Threads(4)->Threads(8)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
  char tmpl[] = "/tmp/tarn-bench.XXXXXX";
  if (!::mkdtemp(tmpl)) return 1;
  g_root = tmpl;
  ::setenv("TARNCORE_ROOT", g_root.c_str(), 1);

  tarn::log::SetThreshold(tarn::log::Level::Off);
  tarn::log::Open("ipc_bench", 2, 10);
  RequestGates::Install(&g_gates);
  SignatureVerifyer::SetInstanceForTesting(&g_verifier);
  ServerManager::GetInstance().ServerInit();

  ResponseStatus refused;
  SetResponseStatus(refused, TarnStatus::kDataFormatError);
  std::string answer;
  ConnectManager::GetResErrorMsg(refused, answer);
  g_pongSize = 32 + answer.size() + 1;

  g_rawPath = g_root + "/raw.sock";
  const int listenFd = tarn::bench::Listen(g_rawPath);
  if (listenFd < 0) return 1;
  std::thread(tarn::bench::ServeRawPingPong, listenFd, 32 + kEmptyRequest.size() + 1, g_pongSize).detach();

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  ServerManager::GetInstance().ServerUnInit();
  ::shutdown(listenFd, SHUT_RDWR);
  std::error_code ec;
  std::filesystem::remove_all(g_root, ec);
  return 0;
}

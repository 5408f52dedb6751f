// One client process of the container benchmark, or the raw ping-pong server
// it is compared with. The build signs it, so it passes the container's caller
// checks like any signed client.
//
//   tarn_bench_client probe REQUEST            one request; prints the answer's
//                                             size, and the answer on standard error
//   tarn_bench_client call REQUEST SECONDS OUT  requests through the IPC library
//   tarn_bench_client raw SOCKET REQ RESP SECONDS OUT
//                                             frames of REQ bytes out, RESP back
//   tarn_bench_client raw-server SOCKET REQ RESP
//
// call and raw talk to the driver on their standard streams: after a warm-up
// they print "ready", wait for a line on standard input, make round trips for
// SECONDS, write each one's latency in microseconds (doubles) to OUT, print
// "done <count>" and stay connected until standard input ends, so that the
// server's threads and counters are read while every client is still there.
// raw-server prints "ready" once it listens and serves until it is killed.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "platform/ipc/ipc_client.h"
#include "raw_socket.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWarmUpRounds = 200;
constexpr int kTimeoutMs = 10000;

bool Succeeded(const std::string& response) { return response.find("\"status_code\":\"0\"") != std::string::npos; }

// One round trip; false when it failed (the reason is on standard error).
using RoundTrip = std::function<bool()>;

int Drive(const RoundTrip& roundTrip, double seconds, const std::string& out) {
  for (int i = 0; i < kWarmUpRounds; ++i) {
    if (!roundTrip()) return 1;
  }
  std::cout << "ready" << std::endl;
  std::string go;
  if (!std::getline(std::cin, go)) return 1;

  std::vector<double> micros;
  micros.reserve(1 << 18);
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  for (auto now = Clock::now(); now < end;) {
    if (!roundTrip()) return 1;
    const auto after = Clock::now();
    micros.push_back(std::chrono::duration<double, std::micro>(after - now).count());
    now = after;
  }
  FILE* file = std::fopen(out.c_str(), "wb");
  if (!file || std::fwrite(micros.data(), sizeof(double), micros.size(), file) != micros.size()) return 1;
  std::fclose(file);
  std::cout << "done " << micros.size() << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
  }
  return 0;
}

int Call(const std::string& request, double seconds, const std::string& out) {
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  // Ids of one client only need to differ from each other.
  int32_t id = tarn::ipc::RandomSyncMessageId() & 0x3fffffff;
  std::string response;
  return Drive(
      [&] {
        TagIPCMessageItem item = tarn::ipc::ClientRequest(request, ++id);
        const int code = client.SendMessageSync(item, response, kTimeoutMs);
        if (code == 0 && Succeeded(response)) return true;
        std::cerr << "tarn_bench_client: call failed, client code " << code << ": " << response << std::endl;
        return false;
      },
      seconds, out);
}

int Raw(const std::string& socket, std::size_t requestSize, std::size_t responseSize, double seconds,
        const std::string& out) {
  const int fd = tarn::bench::Connect(socket);
  if (fd < 0) return 1;
  std::vector<char> request(requestSize, 'r');
  std::vector<char> response(responseSize);
  return Drive(
      [&] {
        if (tarn::bench::WriteAll(fd, request.data(), request.size()) &&
            tarn::bench::ReadAll(fd, response.data(), response.size())) {
          return true;
        }
        std::cerr << "tarn_bench_client: raw ping-pong broke" << std::endl;
        return false;
      },
      seconds, out);
}

int RawServer(const std::string& socket, std::size_t requestSize, std::size_t responseSize) {
  const int listenFd = tarn::bench::Listen(socket);
  if (listenFd < 0) return 1;
  std::cout << "ready" << std::endl;
  tarn::bench::ServeRawPingPong(listenFd, requestSize, responseSize);
  return 1;
}

int Probe(const std::string& request) {
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  std::string response;
  TagIPCMessageItem item = tarn::ipc::ClientRequest(request, tarn::ipc::RandomSyncMessageId());
  const int code = client.SendMessageSync(item, response, kTimeoutMs);
  std::cerr << response << std::endl;
  std::cout << response.size() << std::endl;
  return code == 0 && Succeeded(response) ? 0 : 1;
}

std::size_t Size(const char* text) { return static_cast<std::size_t>(std::strtoul(text, nullptr, 10)); }

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "probe" && argc == 3) return Probe(argv[2]);
  if (mode == "call" && argc == 5) return Call(argv[2], std::atof(argv[3]), argv[4]);
  if (mode == "raw" && argc == 7) return Raw(argv[2], Size(argv[3]), Size(argv[4]), std::atof(argv[5]), argv[6]);
  if (mode == "raw-server" && argc == 5) return RawServer(argv[2], Size(argv[3]), Size(argv[4]));
  std::cerr << "usage: tarn_bench_client probe REQUEST | call REQUEST SECONDS OUT |"
               " raw SOCKET REQ RESP SECONDS OUT | raw-server SOCKET REQ RESP"
            << std::endl;
  return 2;
}

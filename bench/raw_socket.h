#pragma once
// The plain Unix-socket side of the benchmarks: whole-buffer send and receive
// and a connect, so the raw ping-pong does no more than the socket itself.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "round_trip_stats.h"

namespace tarn::bench {

inline bool WriteAll(int fd, const char* p, std::size_t n) {
  while (n) {
    ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<std::size_t>(w);
  }
  return true;
}

inline bool ReadAll(int fd, char* p, std::size_t n) {
  while (n) {
    ssize_t r = ::recv(fd, p, n, 0);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<std::size_t>(r);
  }
  return true;
}

inline int Connect(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// One thread per connection: read a request frame, write a response frame.
inline void ServeRawPingPong(int listenFd, std::size_t requestSize, std::size_t responseSize) {
  for (;;) {
    int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    std::thread([fd, requestSize, responseSize] {
      std::vector<char> in(requestSize);
      std::vector<char> out(responseSize, 'x');
      while (ReadAll(fd, in.data(), in.size()) && WriteAll(fd, out.data(), out.size())) {
      }
      ::close(fd);
    }).detach();
  }
}

// The client side: each iteration writes a request frame and reads the answer.
inline void RawPingPongClient(benchmark::State& state, const std::string& path, std::size_t requestSize,
                              std::size_t responseSize, RoundTrips& samples) {
  int fd = Connect(path);
  if (fd < 0) {
    state.SkipWithError("connect failed");
    return;
  }
  std::vector<char> out(requestSize, 'r');
  std::vector<char> in(responseSize);
  samples.Start();
  std::vector<double> micros;
  micros.reserve(1 << 16);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    if (!WriteAll(fd, out.data(), out.size()) || !ReadAll(fd, in.data(), in.size())) {
      state.SkipWithError("ping-pong broke");
      break;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations());
  samples.Report(state, micros);
}

}  // namespace tarn::bench

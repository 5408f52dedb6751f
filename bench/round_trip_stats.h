#pragma once
// Latency and cost figures that the round-trip benchmarks report beside their
// throughput: p50 and p99 of every round trip of all clients of one run, and
// the whole process's CPU time (and its user part) and context switches per request (clients,
// the endpoint's workers and the log together). On a machine that others
// share, CPU time per request holds up better than wall time.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <mutex>
#include <vector>

#include "raw_socket.h"

namespace tarn::bench {

struct CpuMicros {
  double user = 0;
  double system = 0;
};

inline CpuMicros ProcessCpuMicros() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  auto micros = [](const timeval& t) { return t.tv_sec * 1e6 + t.tv_usec; };
  return {micros(usage.ru_utime), micros(usage.ru_stime)};
}

// Voluntary (a thread waits) and involuntary: on a virtual machine each one
// costs more than the work of a small request.
inline double ProcessContextSwitches() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
}

// The process's resident memory in KiB (VmRSS), 0 when it can't be read.
inline double ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtod(line.c_str() + 6, nullptr);
  }
  return 0;
}

// Collects the latencies of all clients of one run; the last client to
// finish reports. Each client calls Start before its loop and Report after.
class RoundTrips {
 public:
  void Start() {
    std::lock_guard lock(mutex_);
    if (started_++ == 0) {
      cpuAtStart_ = ProcessCpuMicros();
      switchesAtStart_ = ProcessContextSwitches();
    }
  }

  void Report(benchmark::State& state, const std::vector<double>& mine) {
    std::lock_guard lock(mutex_);
    micros_.insert(micros_.end(), mine.begin(), mine.end());
    requests_ += state.iterations();
    if (++done_ < state.threads()) return;
    const CpuMicros now = ProcessCpuMicros();
    const double user = now.user - cpuAtStart_.user;
    const double cpu = user + now.system - cpuAtStart_.system;
    const double switches = ProcessContextSwitches() - switchesAtStart_;
    std::sort(micros_.begin(), micros_.end());
    auto at = [&](double q) {
      return micros_.empty() ? 0.0
                             : micros_[std::min(micros_.size() - 1, static_cast<std::size_t>(q * micros_.size()))];
    };
    // Counters are summed over threads: only this thread sets these.
    const double n = requests_ ? static_cast<double>(requests_) : 1.0;
    state.counters["p50_us"] = at(0.50);
    state.counters["p99_us"] = at(0.99);
    state.counters["cpu_us_per_req"] = requests_ ? cpu / n : 0.0;
    // The rest is the kernel's: socket calls, wake-ups and switches.
    state.counters["user_us_per_req"] = requests_ ? user / n : 0.0;
    state.counters["switches_per_req"] = requests_ ? switches / n : 0.0;
    // Taken while every client is still connected: memory under load.
    state.counters["rss_kib"] = ResidentKiB();
    micros_.clear();
    started_ = done_ = 0;
    requests_ = 0;
  }

 private:
  std::mutex mutex_;
  std::vector<double> micros_;
  int started_ = 0;
  int done_ = 0;
  CpuMicros cpuAtStart_;
  double switchesAtStart_ = 0;
  std::uint64_t requests_ = 0;
};

// The raw ping-pong's client side: each iteration writes a request frame and
// reads the answer.
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

// Bytes that any local process may write to the container's socket, read by
// the real server, in chunks the input chooses: each chunk is read before the
// next one is sent. The first byte picks a server whose connections have a
// reader thread each, or one whose worker pool reads them.
//
// Input: mode byte, cut count byte, that many cut bytes, then the stream.
// What must hold: exactly the request frames that the stream holds whole
// before its first bad header are delivered, each body as sent and
// zero-terminated; a bad header (padding not zero, a body above 16 MiB)
// closes the connection without the client closing it.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <linux/sockios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "platform/ipc/ipc_client.h"
#include "platform/ipc/ipc_server.h"

namespace {

using tarn::fuzz::Check;
using Clock = std::chrono::steady_clock;
using Frame = std::pair<int32_t, std::string>;  // syncMessageId, body

uint32_t U32(const std::string& s, std::size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(s[at + i]);
  return v;
}

// What the stream holds: the request frames before the first bad or
// incomplete header, and whether a header was bad.
struct Expected {
  std::vector<Frame> frames;
  bool bad = false;
};

Expected Model(const std::string& s) {
  Expected e;
  std::size_t at = 0;
  while (at < s.size()) {
    if (s.size() - at < tarn::ipc::kFrameHeaderSize) break;
    const uint32_t size = U32(s, at + 24);
    if (s[at + 29] || s[at + 30] || s[at + 31] || size > tarn::ipc::kMaxBodySize) {
      e.bad = true;
      break;
    }
    if (s.size() - at - tarn::ipc::kFrameHeaderSize < size) break;
    if (U32(s, at + 8) == IpcRequestMessageCode) {
      e.frames.emplace_back(static_cast<int32_t>(U32(s, at + 20)),
                            s.substr(at + tarn::ipc::kFrameHeaderSize, size));
    }
    at += tarn::ipc::kFrameHeaderSize + size;
  }
  return e;
}

bool HungUp(int fd) {
  pollfd p{fd, POLLRDHUP, 0};
  return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLRDHUP | POLLERR));
}

// Until the server has read everything sent, or has closed the connection.
void AwaitRead(int fd) {
  const auto end = Clock::now() + std::chrono::seconds(10);
  for (;;) {
    int queued = 0;
    if (::ioctl(fd, SIOCOUTQ, &queued) != 0 || queued == 0 || HungUp(fd)) return;
    Check(Clock::now() < end, "the server stopped reading a connection");
    std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
}

bool AwaitClose(int fd) {
  const auto end = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < end) {
    pollfd p{fd, POLLIN | POLLRDHUP, 0};
    if (::poll(&p, 1, 100) > 0) {
      char sink[256];
      if (::recv(fd, sink, sizeof(sink), MSG_DONTWAIT) <= 0) return true;
    }
  }
  return false;
}

// A server and what it delivered, for the whole run.
struct Server {
  explicit Server(const std::string& path, int readers) {
    TarnCoreIPCMessageServer::Options options;
    options.socketPath = path;
    options.readerThreads = readers;
    server = std::make_unique<TarnCoreIPCMessageServer>(options);
    Check(server->Start(), "server starts");
    receiver = std::make_unique<TarnCoreIPCMessageClient>(IpcAddressContainer, true, true);
    receiver->RegisterMessageCallback(IpcRequestMessageCode, [this](TagIPCMessageItem& item) {
      std::lock_guard lock(mutex);
      terminated = terminated && item.body && item.body[item.bodySize] == '\0';
      delivered.emplace_back(item.syncMessageId, std::string(item.body, item.bodySize));
      arrived.notify_all();
    });
  }
  std::unique_ptr<TarnCoreIPCMessageServer> server;
  std::unique_ptr<TarnCoreIPCMessageClient> receiver;
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<Frame> delivered;
  bool terminated = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto& root = tarn::fuzz::Machine();
  // Made in this order: a container-side client attaches to the server started last.
  static Server pooled(root.At("run/tarncore/pool.sock"), 0);
  static Server readers(root.At("run/tarncore/readers.sock"), 64);
  if (size < 2) return 0;
  Server& target = (data[0] & 1) ? readers : pooled;
  std::size_t cuts = data[1] % 8;
  if (size < 2 + cuts) return 0;
  const std::string stream(tarn::fuzz::Bytes(data + 2 + cuts, size - 2 - cuts));
  std::vector<std::size_t> at = {0, stream.size()};
  for (std::size_t i = 0; i < cuts; ++i) at.push_back(stream.size() * data[2 + i] / 256);
  std::sort(at.begin(), at.end());

  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, target.server->SocketPathInUse().c_str(), sizeof(addr.sun_path) - 1);
  Check(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0, "connects");
  for (std::size_t i = 0; i + 1 < at.size(); ++i) {
    std::size_t sent = at[i];
    while (sent < at[i + 1]) {
      ssize_t n = ::send(fd, stream.data() + sent, at[i + 1] - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
    AwaitRead(fd);
  }
  const Expected expected = Model(stream);
  if (expected.bad) Check(AwaitClose(fd), "a bad header closes the connection");
  ::shutdown(fd, SHUT_WR);
  Check(AwaitClose(fd), "the end of the stream closes the connection");
  ::close(fd);

  std::unique_lock lock(target.mutex);
  // Frames handed to idle workers may still be on their way.
  target.arrived.wait_for(lock, std::chrono::seconds(10),
                          [&] { return target.delivered.size() >= expected.frames.size(); });
  std::vector<Frame> want = expected.frames;
  std::vector<Frame> got = std::exchange(target.delivered, {});
  std::sort(want.begin(), want.end());
  std::sort(got.begin(), got.end());
  Check(target.terminated, "every delivered body is zero-terminated");
  Check(got == want, "exactly the frames the stream holds whole before a bad header are delivered, as sent");
  return 0;
}

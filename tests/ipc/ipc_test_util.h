#pragma once
// Raw-socket helpers for poking the IPC server below the client library, and
// the liveness bound the socket tests share.
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "platform/ipc/ipc_client.h"
#include "platform/ipc/ipc_message.h"
#include "support/eventually.h"

namespace tarn::test {

constexpr int kLong = 10000;  // ms: an upper bound for liveness only

// Reads on this connection give up after the liveness bound.
inline int RawConnect(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  const timeval bound{kLong / 1000, 0};
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound)) == 0 &&
      ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
    return fd;
  }
  ::close(fd);
  return -1;
}

inline bool WriteAll(int fd, const std::string& bytes) {
  for (std::size_t off = 0; off < bytes.size();) {
    ssize_t n = ::send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (n <= 0) return false;
    off += static_cast<std::size_t>(n);
  }
  return true;
}

// Reads exactly n bytes; false on end, error or time-out.
inline bool ReadExact(int fd, std::string& out, std::size_t n) {
  out.assign(n, '\0');
  return ::recv(fd, out.data(), n, MSG_WAITALL) == static_cast<ssize_t>(n);
}

// Reads one whole frame; false on end, error, time-out or bytes that are no frame.
inline bool ReadFrame(int fd, TagIPCMessageItem& item, std::string& body) {
  std::string header;
  return ReadExact(fd, header, ipc::kFrameHeaderSize) &&
         ipc::DecodeFrameHeader(reinterpret_cast<const unsigned char*>(header.data()), item) == ipc::HeaderCheck::Ok &&
         ReadExact(fd, body, item.bodySize);
}

// True when the peer closed the connection within the time.
inline bool WaitClosed(int fd) {
  char c;
  ssize_t r = ::recv(fd, &c, 1, 0);
  return r == 0 || (r < 0 && errno == ECONNRESET);
}

inline TagIPCMessageItem RequestItem(int32_t id) {
  TagIPCMessageItem item;
  item.target = IpcAddressContainer;
  item.source = IpcAddressClientSide;
  item.messageCode = IpcRequestMessageCode;
  item.reserved = -1;
  item.syncMessageId = id;
  return item;
}

// The container's answer to request `id`, as it posts it.
inline TagIPCMessageItem ResponseItem(int32_t id) {
  TagIPCMessageItem item = RequestItem(id);
  std::swap(item.target, item.source);
  item.messageCode = IpcResponseMessageCode;
  item.bodyIsHeld = 1;
  return item;
}

// A frame header that announces bodySize bytes, whatever follows it.
inline std::string EncodeHeader(TagIPCMessageItem item, uint32_t bodySize) {
  unsigned char header[ipc::kFrameHeaderSize];
  item.bodySize = bodySize;
  ipc::EncodeFrameHeader(item, header);
  return std::string(reinterpret_cast<char*>(header), sizeof(header));
}

// A request frame as a client writes it; the body goes without a terminator.
inline std::string EncodeFrame(TagIPCMessageItem item, const std::string& body) {
  return EncodeHeader(item, static_cast<uint32_t>(body.size())) + body;
}

// Forks a process that connects, sends `bytes`, then reads as many bytes as
// `answer` holds and ends with status 0 when they are those. Everything it
// uses is made before the fork.
inline pid_t SendFromChild(const std::string& socketPath, const std::string& bytes, const std::string& answer = "") {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socketPath.c_str(), sizeof(addr.sun_path) - 1);
  std::string got(answer.size(), '\0');
  const pid_t child = ::fork();
  if (child == 0) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
                    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()) &&
                    (answer.empty() || ::recv(fd, got.data(), got.size(), MSG_WAITALL) == static_cast<ssize_t>(got.size())) &&
                    std::memcmp(got.data(), answer.data(), answer.size()) == 0;
    _exit(ok ? 0 : 1);
  }
  return child;
}

// A request through the client library; 0 or the library's code.
inline int SendRequest(TarnCoreIPCMessageClient& client, int32_t id, std::string text,
                       std::string& response, int timeoutMs = kLong) {
  TagIPCMessageItem item = RequestItem(id);
  item.body = text.data();
  item.bodySize = static_cast<uint32_t>(text.size() + 1);
  return client.SendMessageSync(item, response, timeoutMs);
}

}  // namespace tarn::test

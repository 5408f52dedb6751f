#pragma once
// The plain Unix-socket side of the benchmarks: whole-buffer send and receive,
// connect and listen, and the ping-pong server, so the raw ping-pong does no
// more than the socket itself.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

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

inline sockaddr_un SocketAddress(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  return addr;
}

inline int Connect(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un addr = SocketAddress(path);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// A listening socket at path, -1 on failure.
inline int Listen(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un addr = SocketAddress(path);
  if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(fd, 64) != 0) {
    if (fd >= 0) ::close(fd);
    return -1;
  }
  return fd;
}

// One thread per connection: read a request frame, write a response frame.
// Returns when the listening socket is shut down.
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

}  // namespace tarn::bench

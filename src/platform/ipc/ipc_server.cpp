#include "platform/ipc/ipc_server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <pthread.h>

#include "platform/ipc/server_core.h"
#include "platform/log/tarn_log.h"
#include "platform/os/places.h"
#include "platform/os/process_identity.h"

namespace tarn::ipc {
namespace {

// Event keys: connections use (id << 2) | 0 for reading and | 1 for writing,
// with ids from 16 on, so keys below 64 are free for these.
constexpr uint64_t kKeyListen = 1;
constexpr uint64_t kKeyStop = 2;
constexpr uint64_t kKeyQueue = 3;

constexpr std::size_t kScratchSize = 64 * 1024;
// Bytes read from one connection before others get their turn.
constexpr std::size_t kReadBudget = 1024 * 1024;
// A peer that stops reading is cut off once this much waits for it.
constexpr std::size_t kMaxPendingOutput = 64u * 1024 * 1024;

constexpr uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;

std::mutex g_currentMutex;
std::weak_ptr<ServerCore> g_current;

// The registration whose callback runs on this thread, so that a callback may
// unregister its own owner without waiting for itself.
thread_local const void* t_runningRegistration = nullptr;

void LogIpc(log::Level level, const std::string& text) {
  if (log::Enabled(level)) log::Write(level, "ipc", text);
}

}  // namespace

struct ServerCore::Connection {
  uint64_t id = 0;
  int fd = -1;
  int wfd = -1;  // a dup of fd: its own epoll entry for write readiness
  pid_t pid = 0;
  bool pinned = false;

  // Read side: only the worker holding the one-shot read event touches these.
  // The one-shot event already hands them from worker to worker; the lock,
  // never contended, states that hand-off in terms the memory model knows.
  std::mutex readMutex;
  unsigned char header[kFrameHeaderSize];
  std::size_t headerGot = 0;
  TagIPCMessageItem item;
  std::unique_ptr<char[]> body;
  std::size_t bodyCap = 0;  // grows with what arrives, not with what the header claims
  std::size_t bodyGot = 0;
  bool inBody = false;

  // Write side.
  std::mutex writeMutex;
  std::string pending;
  std::size_t pendingOff = 0;
  bool closed = false;
  std::atomic<bool> tornDown{false};

  ~Connection() {
    if (fd >= 0) ::close(fd);
    if (wfd >= 0) ::close(wfd);
  }
};

ServerCore::ServerCore(std::string socketPath, int workers)
    : path_(std::move(socketPath)), workerCount_(std::max(workers, 8)) {}

ServerCore::~ServerCore() { Stop(); }

std::shared_ptr<ServerCore> ServerCore::Current() {
  std::lock_guard lock(g_currentMutex);
  return g_current.lock();
}

bool ServerCore::Start() {
  if (running_) return true;
  if (path_.empty()) path_ = SocketPath();
  if (path_.size() >= sizeof(sockaddr_un{}.sun_path)) {
    LogIpc(log::Level::Error, "ipc socket path too long: " + path_);
    return false;
  }
  os::MakeDirectories(std::filesystem::path(path_).parent_path().string());

  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);

  // A socket file that still answers belongs to a live server: leave it alone.
  int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe >= 0) {
    bool alive = ::connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    ::close(probe);
    if (alive) {
      LogIpc(log::Level::Error, "ipc socket already served: " + path_);
      return false;
    }
  }
  ::unlink(path_.c_str());

  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      ::chmod(path_.c_str(), 0666) != 0 || ::listen(listenFd_, SOMAXCONN) != 0) {
    LogIpc(log::Level::Error, "ipc listen failed: " + path_ + " errno " + std::to_string(errno));
    if (listenFd_ >= 0) ::close(listenFd_);
    listenFd_ = -1;
    return false;
  }
  epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
  stopFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  queueFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC | EFD_SEMAPHORE);
  auto add = [this](int fd, uint32_t events, uint64_t key) {
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = key;
    return ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) == 0;
  };
  if (epollFd_ < 0 || stopFd_ < 0 || queueFd_ < 0 || !add(listenFd_, EPOLLIN | EPOLLONESHOT, kKeyListen) ||
      !add(stopFd_, EPOLLIN, kKeyStop) || !add(queueFd_, EPOLLIN, kKeyQueue)) {
    LogIpc(log::Level::Error, "ipc epoll set-up failed, errno " + std::to_string(errno));
    for (int* fd : {&listenFd_, &epollFd_, &stopFd_, &queueFd_}) {
      if (*fd >= 0) ::close(*fd);
      *fd = -1;
    }
    ::unlink(path_.c_str());
    return false;
  }

  running_ = true;
  workers_.reserve(static_cast<std::size_t>(workerCount_));
  for (int i = 0; i < workerCount_; ++i) {
    workers_.emplace_back([this] { WorkerLoop(); });
    std::string name = "tarn-ipc-" + std::to_string(i);
    ::pthread_setname_np(workers_.back().native_handle(), name.c_str());
  }
  {
    std::lock_guard lock(g_currentMutex);
    g_current = shared_from_this();
  }
  LogIpc(log::Level::Info, "ipc server listening on " + path_);
  return true;
}

void ServerCore::Stop() {
  if (!running_.exchange(false)) return;
  uint64_t one = 1;
  [[maybe_unused]] ssize_t w = ::write(stopFd_, &one, sizeof(one));
  for (auto& t : workers_) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();  // stopped from one of its own callbacks
    } else if (t.joinable()) {
      t.join();
    }
  }
  workers_.clear();

  std::vector<std::shared_ptr<Connection>> all;
  {
    std::lock_guard lock(connMutex_);
    for (auto& [id, conn] : connections_) all.push_back(conn);
  }
  for (auto& conn : all) Close(conn);
  {
    std::lock_guard lock(queueMutex_);
    queue_.clear();
  }
  for (int* fd : {&listenFd_, &epollFd_, &stopFd_, &queueFd_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
  ::unlink(path_.c_str());
  {
    std::lock_guard lock(g_currentMutex);
    if (g_current.lock().get() == this) g_current.reset();
  }
}

std::shared_ptr<ServerCore::Connection> ServerCore::Find(uint64_t id) {
  std::lock_guard lock(connMutex_);
  auto it = connections_.find(id);
  return it == connections_.end() ? nullptr : it->second;
}

std::size_t ServerCore::ConnectionCount() const {
  std::lock_guard lock(connMutex_);
  return connections_.size();
}

void ServerCore::WorkerLoop() {
  std::vector<Frame> frames;
  while (running_) {
    epoll_event ev{};
    int n = ::epoll_wait(epollFd_, &ev, 1, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (n == 0) continue;
    const uint64_t key = ev.data.u64;
    if (key == kKeyStop || !running_) break;
    if (key == kKeyListen) {
      Accept();
      continue;
    }
    if (key == kKeyQueue) {
      uint64_t count = 0;
      if (::read(queueFd_, &count, sizeof(count)) != sizeof(count)) continue;  // another took it
      Frame frame;
      {
        std::lock_guard lock(queueMutex_);
        if (queue_.empty()) continue;
        frame = std::move(queue_.front());
        queue_.pop_front();
      }
      Deliver(frame);
      continue;
    }
    auto conn = Find(key >> 2);
    if (!conn) continue;
    if (key & 1) {
      FlushPending(conn);
      continue;
    }
    frames.clear();
    bool keep;
    {
      std::lock_guard lock(conn->readMutex);
      keep = ReadFrames(*conn, frames);
    }
    if (keep) {
      RearmRead(*conn);
    } else {
      Close(conn);
    }
    conn.reset();
    if (frames.empty()) continue;
    // Keep the first frame on this thread; idle workers take the rest.
    for (std::size_t i = 1; i < frames.size(); ++i) Enqueue(std::move(frames[i]));
    Deliver(frames[0]);
    frames.clear();
  }
}

void ServerCore::Accept() {
  for (;;) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        LogIpc(log::Level::Error, "ipc accept failed, errno " + std::to_string(errno));
      }
      break;
    }
    auto conn = std::make_shared<Connection>();
    conn->fd = fd;
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) conn->pid = cred.pid;
    conn->pinned = conn->pid > 0 && os::PinProcess(conn->pid);
    conn->wfd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (conn->wfd < 0) continue;  // conn's destructor closes fd
    {
      std::lock_guard lock(connMutex_);
      conn->id = nextConnId_++;
      connections_.emplace(conn->id, conn);
    }
    epoll_event rev{};
    rev.events = kReadEvents;
    rev.data.u64 = conn->id << 2;
    epoll_event wev{};
    wev.events = EPOLLONESHOT;  // armed only while output waits
    wev.data.u64 = (conn->id << 2) | 1;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, conn->wfd, &wev) != 0 ||
        ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, conn->fd, &rev) != 0) {
      Close(conn);
    }
  }
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLONESHOT;
  ev.data.u64 = kKeyListen;
  ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, listenFd_, &ev);
}

void ServerCore::RearmRead(Connection& conn) {
  epoll_event ev{};
  ev.events = kReadEvents;
  ev.data.u64 = conn.id << 2;
  ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, conn.fd, &ev);
}

bool ServerCore::ReadFrames(Connection& c, std::vector<Frame>& frames) {
  thread_local std::unique_ptr<char[]> scratch(new char[kScratchSize]);

  // A header may claim up to 16 MiB; memory follows the bytes actually sent.
  auto grow = [&](std::size_t want) {
    if (want <= c.bodyCap) return true;
    std::size_t cap = std::min<std::size_t>(c.item.bodySize + 1, std::max(want, c.bodyCap * 2));
    std::unique_ptr<char[]> bigger(new (std::nothrow) char[cap]);
    if (!bigger) return false;
    if (c.bodyGot) std::memcpy(bigger.get(), c.body.get(), c.bodyGot);
    c.body = std::move(bigger);
    c.bodyCap = cap;
    return true;
  };
  auto finish = [&] {
    if (!grow(c.item.bodySize + 1)) return false;
    c.body[c.item.bodySize] = '\0';  // delivered text is always terminated
    Frame f;
    f.item = c.item;
    f.item.body = c.body.get();
    f.body = std::move(c.body);
    c.bodyCap = 0;
    c.inBody = false;
    c.bodyGot = 0;
    {
      std::lock_guard lock(routeMutex_);
      routes_[f.item.syncMessageId] = Route{c.id, c.pid};
    }
    frames.push_back(std::move(f));
    return true;
  };
  auto fail = [&](const char* why) {
    LogIpc(log::Level::Warn, std::string("ipc connection closed: ") + why + ", pid " +
                                 std::to_string(c.pid));
    return false;
  };

  std::size_t budget = kReadBudget;
  while (budget > 0) {
    // A large body is read straight into its buffer.
    if (c.inBody && c.item.bodySize - c.bodyGot >= kScratchSize) {
      if (!grow(std::min<std::size_t>(c.item.bodySize, c.bodyGot + kReadBudget))) {
        return fail("out of memory");
      }
      ssize_t n = ::recv(c.fd, c.body.get() + c.bodyGot,
                         std::min<std::size_t>(c.item.bodySize, c.bodyCap) - c.bodyGot, 0);
      if (n > 0) {
        c.bodyGot += static_cast<std::size_t>(n);
        budget -= std::min(budget, static_cast<std::size_t>(n));
        if (c.bodyGot == c.item.bodySize && !finish()) return fail("out of memory");
        continue;
      }
      if (n == 0) return false;
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    ssize_t n = ::recv(c.fd, scratch.get(), kScratchSize, 0);
    if (n == 0) return false;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    const char* p = scratch.get();
    std::size_t left = static_cast<std::size_t>(n);
    budget -= std::min(budget, left);
    while (left > 0) {
      if (!c.inBody) {
        std::size_t take = std::min(kFrameHeaderSize - c.headerGot, left);
        std::memcpy(c.header + c.headerGot, p, take);
        c.headerGot += take;
        p += take;
        left -= take;
        if (c.headerGot < kFrameHeaderSize) break;
        c.headerGot = 0;
        switch (DecodeFrameHeader(c.header, c.item)) {
          case HeaderCheck::Garbage: return fail("not a frame header");
          case HeaderCheck::TooLarge: return fail("frame too large");
          case HeaderCheck::Ok: break;
        }
        c.body.reset();
        c.bodyCap = 0;
        c.bodyGot = 0;
        if (!grow(std::min<std::size_t>(c.item.bodySize + 1, kScratchSize))) {
          return fail("out of memory");
        }
        c.inBody = true;
        if (c.item.bodySize == 0 && !finish()) return fail("out of memory");
      } else {
        std::size_t take = std::min<std::size_t>(c.item.bodySize - c.bodyGot, left);
        if (!grow(c.bodyGot + take)) return fail("out of memory");
        std::memcpy(c.body.get() + c.bodyGot, p, take);
        c.bodyGot += take;
        p += take;
        left -= take;
        if (c.bodyGot == c.item.bodySize && !finish()) return fail("out of memory");
      }
    }
    // A short read means the socket is drained; the re-armed level-triggered
    // event reports anything that arrives later, so skip the EAGAIN round.
    if (static_cast<std::size_t>(n) < kScratchSize) return true;
  }
  return true;
}

void ServerCore::Close(const std::shared_ptr<Connection>& conn) {
  if (conn->tornDown.exchange(true)) return;
  if (epollFd_ >= 0) {
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, conn->fd, nullptr);
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, conn->wfd, nullptr);
  }
  {
    std::lock_guard lock(conn->writeMutex);
    conn->closed = true;
    conn->pending.clear();
    conn->pendingOff = 0;
  }
  ::shutdown(conn->fd, SHUT_RDWR);
  {
    std::lock_guard lock(connMutex_);
    connections_.erase(conn->id);
  }
  {
    std::lock_guard lock(routeMutex_);
    for (auto it = routes_.begin(); it != routes_.end();) {
      it = it->second.connId == conn->id ? routes_.erase(it) : std::next(it);
    }
  }
  if (conn->pinned) os::UnpinProcess(conn->pid);
  // The descriptors close with the last reference, so no other thread's send
  // can land on a reused descriptor number.
}

bool ServerCore::Send(const std::shared_ptr<Connection>& conn, const TagIPCMessageItem& item) {
  TagIPCMessageItem out = item;
  if (!out.body) out.bodySize = 0;
  if (out.bodySize > kMaxBodySize) return false;
  unsigned char header[kFrameHeaderSize];
  EncodeFrameHeader(out, header);
  const std::size_t total = kFrameHeaderSize + out.bodySize;

  std::lock_guard lock(conn->writeMutex);
  if (conn->closed) return false;
  auto cutOff = [&] {
    conn->closed = true;
    conn->pending.clear();
    ::shutdown(conn->fd, SHUT_RDWR);  // its reader sees the end and closes it
    return false;
  };
  auto queueRest = [&](std::size_t from) {
    if (conn->pending.size() - conn->pendingOff + (total - from) > kMaxPendingOutput) return false;
    if (from < kFrameHeaderSize) {
      conn->pending.append(reinterpret_cast<const char*>(header) + from, kFrameHeaderSize - from);
      from = kFrameHeaderSize;
    }
    conn->pending.append(out.body + (from - kFrameHeaderSize), total - from);
    return true;
  };

  if (conn->pendingOff < conn->pending.size()) {
    return queueRest(0) ? true : cutOff();  // keep frames in order behind what waits
  }
  std::size_t sent = 0;
  while (sent < total) {
    iovec iov[2];
    int count = 0;
    if (sent < kFrameHeaderSize) {
      iov[count++] = {header + sent, kFrameHeaderSize - sent};
      if (out.bodySize) iov[count++] = {out.body, out.bodySize};
    } else {
      iov[count++] = {out.body + (sent - kFrameHeaderSize), total - sent};
    }
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<std::size_t>(count);
    ssize_t n = ::sendmsg(conn->fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!queueRest(sent)) return cutOff();
      epoll_event ev{};
      ev.events = EPOLLOUT | EPOLLONESHOT;
      ev.data.u64 = (conn->id << 2) | 1;
      ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, conn->wfd, &ev);
      return true;
    }
    return cutOff();
  }
  return true;
}

void ServerCore::FlushPending(const std::shared_ptr<Connection>& conn) {
  std::lock_guard lock(conn->writeMutex);
  if (conn->closed) return;
  while (conn->pendingOff < conn->pending.size()) {
    ssize_t n = ::send(conn->fd, conn->pending.data() + conn->pendingOff,
                       conn->pending.size() - conn->pendingOff, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      conn->pendingOff += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      epoll_event ev{};
      ev.events = EPOLLOUT | EPOLLONESHOT;
      ev.data.u64 = (conn->id << 2) | 1;
      ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, conn->wfd, &ev);
      return;
    }
    conn->closed = true;
    ::shutdown(conn->fd, SHUT_RDWR);
    break;
  }
  conn->pending.clear();
  conn->pendingOff = 0;
}

void ServerCore::Enqueue(Frame frame) {
  {
    std::lock_guard lock(queueMutex_);
    queue_.push_back(std::move(frame));
  }
  uint64_t one = 1;
  [[maybe_unused]] ssize_t w = ::write(queueFd_, &one, sizeof(one));
}

void ServerCore::Deliver(Frame& frame) {
  // Nearly always exactly one registration matches; avoid a heap list for it.
  std::shared_ptr<Registration> first;
  std::vector<std::shared_ptr<Registration>> more;
  {
    std::lock_guard lock(regMutex_);
    for (auto& r : registrations_) {
      if (r->code != frame.item.messageCode) continue;
      ++r->running;
      if (!first) {
        first = r;
      } else {
        more.push_back(r);
      }
    }
  }
  if (!first) return;  // nobody takes this code
  auto run = [&](const std::shared_ptr<Registration>& r) {
    const void* saved = t_runningRegistration;
    t_runningRegistration = r.get();
    try {
      r->callback(frame.item);
    } catch (const std::exception& e) {
      LogIpc(log::Level::Error, std::string("ipc callback threw: ") + e.what());
    } catch (...) {
      LogIpc(log::Level::Error, "ipc callback threw");
    }
    t_runningRegistration = saved;
    {
      std::lock_guard lock(regMutex_);
      --r->running;
    }
    regCv_.notify_all();
  };
  run(first);
  for (auto& r : more) run(r);
}

void ServerCore::Register(uint32_t code, MessageCallback callback, const void* owner) {
  auto r = std::make_shared<Registration>();
  r->code = code;
  r->callback = std::move(callback);
  r->owner = owner;
  std::lock_guard lock(regMutex_);
  registrations_.push_back(std::move(r));
}

void ServerCore::UnregisterAll(const void* owner) {
  std::unique_lock lock(regMutex_);
  std::vector<std::shared_ptr<Registration>> removed;
  for (auto it = registrations_.begin(); it != registrations_.end();) {
    if ((*it)->owner == owner) {
      removed.push_back(*it);
      it = registrations_.erase(it);
    } else {
      ++it;
    }
  }
  regCv_.wait(lock, [&] {
    for (auto& r : removed) {
      int own = r.get() == t_runningRegistration ? 1 : 0;
      if (r->running > own) return false;
    }
    return true;
  });
}

uint32_t ServerCore::CallerPid(int32_t syncMessageId) {
  std::lock_guard lock(routeMutex_);
  auto it = routes_.find(syncMessageId);
  return it == routes_.end() ? 0 : static_cast<uint32_t>(it->second.pid);
}

bool ServerCore::Post(const TagIPCMessageItem& item) {
  uint64_t connId = 0;
  {
    std::lock_guard lock(routeMutex_);
    auto it = routes_.find(item.syncMessageId);
    if (it == routes_.end()) return false;
    connId = it->second.connId;
    routes_.erase(it);
  }
  auto conn = Find(connId);
  return conn && Send(conn, item);
}

bool ServerCore::Broadcast(const TagIPCMessageItem& item) {
  std::vector<std::shared_ptr<Connection>> all;
  {
    std::lock_guard lock(connMutex_);
    all.reserve(connections_.size());
    for (auto& [id, conn] : connections_) all.push_back(conn);
  }
  bool any = false;
  for (auto& conn : all) any = Send(conn, item) || any;
  return any;
}

}  // namespace tarn::ipc

// ---------------------------------------------------------------------------

TarnCoreIPCMessageServer::TarnCoreIPCMessageServer() : TarnCoreIPCMessageServer(Options{}) {}

TarnCoreIPCMessageServer::TarnCoreIPCMessageServer(Options options)
    : core_(std::make_shared<tarn::ipc::ServerCore>(std::move(options.socketPath),
                                                    options.workerThreads)) {}

TarnCoreIPCMessageServer::~TarnCoreIPCMessageServer() { core_->Stop(); }

bool TarnCoreIPCMessageServer::Start() { return core_->Start(); }

void TarnCoreIPCMessageServer::Stop() { core_->Stop(); }

uint32_t TarnCoreIPCMessageServer::GetCallerPidByMsgId(int32_t syncMessageId) {
  return core_->CallerPid(syncMessageId);
}

std::size_t TarnCoreIPCMessageServer::ConnectionCount() const { return core_->ConnectionCount(); }

const std::string& TarnCoreIPCMessageServer::SocketPathInUse() const { return core_->Path(); }

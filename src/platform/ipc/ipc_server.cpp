#include "platform/ipc/ipc_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>
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

// A connection holds its socket, a twin of it for writing, and its peer's
// pidfd; the rest of the process keeps this many descriptors for itself.
constexpr std::size_t kFdsPerConnection = 3;
constexpr std::size_t kReservedFds = 128;

// A reader's request that runs this long lets the pool read its connection.
constexpr std::chrono::milliseconds kWatchTick{5};
// Ticks without a busy reader before the watcher sleeps until the next one.
constexpr int kQuietTicksBeforeSleep = 200;

std::mutex g_currentMutex;
std::weak_ptr<ServerCore> g_current;

// The registration whose callback runs on this thread, so that a callback may
// unregister its own owner without waiting for itself.
thread_local const void* t_runningRegistration = nullptr;

// Set on a connection's reader thread, so that Stop called from one of its
// callbacks does not wait for itself.
thread_local bool t_isReader = false;

// The frame this thread delivers: its callbacks ask for the sender by the id,
// which another connection may have sent again meanwhile.
struct Delivering {
  int32_t syncMessageId;
  pid_t pid;
};
thread_local const Delivering* t_delivering = nullptr;

void LogIpc(log::Level level, const std::string& text) {
  if (log::Enabled(level)) log::Write(level, "ipc", text);
}

}  // namespace

struct ServerCore::Connection {
  uint64_t id = 0;
  int fd = -1;
  int wfd = -1;  // a dup of fd: its own epoll entry for write readiness
  pid_t pid = 0;
  std::shared_ptr<const os::PeerProcess> peer;

  // Read side, under readMutex. Without a reader thread, only the worker
  // holding the one-shot read event reads, and the lock merely states that
  // hand-off in terms the memory model knows. With one, the reader holds the
  // lock while it waits for input; the read event is armed only while the
  // reader is stuck in a long request, and a worker that then finds the lock
  // taken leaves the bytes to the reader.
  std::mutex readMutex;
  std::atomic<bool> hasReader{false};
  std::atomic<uint64_t> ticket{0};  // odd while the reader runs a request
  uint64_t seenTicket = 0;          // the watcher's last look
  std::atomic<bool> armed{false};   // the read event may be armed
  unsigned char header[kFrameHeaderSize];
  std::size_t headerGot = 0;
  TagIPCMessageItem item;
  std::unique_ptr<char[]> body;
  std::size_t bodyCap = 0;  // grows with what arrives, not with what the header claims
  InputBudget::Charge bodyCharge;  // of bodyCap
  RouteTable::Owner routes{0};
  bool unansweredLogged = false;
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

ServerCore::ServerCore(std::string socketPath, int workers, int maxReaders, ServerLimits limits)
    : path_(std::move(socketPath)),
      workerCount_(std::max(workers, 8)),
      maxReaders_(std::max(maxReaders, 0)),
      limits_(limits),
      routes_(limits.maxUnanswered),
      input_(limits.maxBufferedInput) {}

ServerCore::~ServerCore() { Stop(); }

std::shared_ptr<ServerCore> ServerCore::Current() {
  std::lock_guard lock(g_currentMutex);
  return g_current.lock();
}

bool ServerCore::Start() {
  if (running_) return true;
  if (path_.empty()) path_ = SocketPath();
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY) {
    const std::size_t fit = files.rlim_cur > kReservedFds ? (files.rlim_cur - kReservedFds) / kFdsPerConnection : 1;
    limits_.maxConnections = std::min(limits_.maxConnections, std::max<std::size_t>(fit, 1));
  }
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
  watcher_ = std::thread([this] { WatchLoop(); });
  ::pthread_setname_np(watcher_.native_handle(), "tarn-ipc-watch");
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
  {
    std::lock_guard lock(watchMutex_);
    watchCv_.notify_all();
  }
  if (watcher_.joinable()) watcher_.join();
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
    // Closing shut the sockets down, so every reader leaves its recv.
    std::unique_lock lock(readersMutex_);
    const int own = t_isReader ? 1 : 0;
    readersCv_.wait(lock, [&] { return readers_ <= own; });
  }
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
        if (queue_.empty()) queueFullLogged_ = false;
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
    ReadOnWorker(conn, frames);
    conn.reset();
    DeliverAll(frames);
  }
}

void ServerCore::ReadOnWorker(const std::shared_ptr<Connection>& conn, std::vector<Frame>& frames) {
  bool keep;
  if (conn->hasReader) {
    std::unique_lock lock(conn->readMutex, std::try_to_lock);
    if (!lock.owns_lock()) return;  // its reader is reading these bytes
    keep = ReadFrames(*conn, frames, false);
    // A reader that went back to recv meanwhile sees the rest; one still busy
    // with its long request needs the pool to keep watching.
    if (keep && (conn->ticket.load() & 1)) {
      conn->armed = true;
      RearmRead(*conn);
    }
  } else {
    std::lock_guard lock(conn->readMutex);
    keep = ReadFrames(*conn, frames, false);
    if (keep) RearmRead(*conn);
  }
  if (!keep) Close(conn);
}

void ServerCore::DeliverAll(std::vector<Frame>& frames) {
  if (frames.empty()) return;
  // Keep the first frame on this thread; idle workers take the rest, as far as
  // the queue's bound lets them. Past it this thread runs them itself, and
  // reads nothing more meanwhile.
  std::size_t kept = 1;
  for (std::size_t i = 1; i < frames.size(); ++i) {
    if (Enqueue(frames[i])) continue;
    if (kept != i) frames[kept] = std::move(frames[i]);
    ++kept;
  }
  for (std::size_t i = 0; i < kept; ++i) Deliver(frames[i]);
  frames.clear();
}

// A connection's own reader waits on its socket, so a request wakes the thread that
// runs it directly, as a plain blocking server would; going through the epoll
// set would cost an extra wake-up and two system calls per request. A request
// that keeps its reader busy for a watch tick gets the connection's read event
// armed, so the pool takes further frames from that connection and they run at
// once. Arming it for every request instead would hand the next request to a
// worker whenever the client sends it before the reader is back at its socket.
void ServerCore::ReaderLoop(const std::shared_ptr<Connection>& conn) {
  t_isReader = true;
  std::vector<Frame> frames;
  while (running_) {
    bool keep;
    {
      std::lock_guard lock(conn->readMutex);
      keep = ReadFrames(*conn, frames, true);
    }
    if (!keep) {
      Close(conn);
      // Frames that came whole before the end or a bad header run, as they do
      // when the pool reads the connection.
      DeliverAll(frames);
      break;
    }
    if (frames.empty()) continue;
    conn->ticket.fetch_add(1);
    if (busyReaders_.fetch_add(1) == 0 && watcherIdle_.load()) {
      std::lock_guard lock(watchMutex_);
      watchCv_.notify_one();
    }
    DeliverAll(frames);
    busyReaders_.fetch_sub(1);
    conn->ticket.fetch_add(1);
    if (conn->armed.exchange(false)) DisarmRead(*conn);
  }
  std::lock_guard lock(readersMutex_);
  --readers_;
  readersCv_.notify_all();
}

void ServerCore::WatchLoop() {
  std::unique_lock lock(watchMutex_);
  int quietTicks = 0;
  while (running_) {
    if (quietTicks >= kQuietTicksBeforeSleep) {
      watcherIdle_ = true;
      watchCv_.wait(lock, [this] { return !running_ || busyReaders_.load() > 0; });
      watcherIdle_ = false;
      quietTicks = 0;
      continue;
    }
    if (watchCv_.wait_for(lock, kWatchTick, [this] { return !running_; })) break;
    quietTicks = busyReaders_.load() > 0 ? 0 : quietTicks + 1;
    lock.unlock();
    WatchLongRequests();
    lock.lock();
  }
}

void ServerCore::WatchLongRequests() {
  std::vector<std::shared_ptr<Connection>> readers;
  {
    std::lock_guard lock(connMutex_);
    for (auto& [id, conn] : connections_) {
      if (conn->hasReader) readers.push_back(conn);
    }
  }
  for (auto& conn : readers) {
    const uint64_t ticket = conn->ticket.load();
    // Busy with the same request as a tick ago.
    if ((ticket & 1) && ticket == conn->seenTicket && !conn->armed.exchange(true)) RearmRead(*conn);
    conn->seenTicket = ticket;
  }
}

bool ServerCore::StartReader(const std::shared_ptr<Connection>& conn) {
  {
    std::lock_guard lock(readersMutex_);
    // Beyond this many the pool reads through epoll alone.
    if (readers_ >= maxReaders_) return false;
    ++readers_;
  }
  bool ok = true;
  conn->hasReader = true;
  try {
    std::thread reader([self = shared_from_this(), conn] { self->ReaderLoop(conn); });
    std::string name = "tarn-ipc-r" + std::to_string(conn->id);
    ::pthread_setname_np(reader.native_handle(), name.c_str());
    reader.detach();
  } catch (const std::system_error&) {
    ok = false;
    conn->hasReader = false;
    std::lock_guard lock(readersMutex_);
    --readers_;
  }
  return ok;
}

void ServerCore::Accept() {
  for (;;) {
    bool atLimit, logIt = false;
    {
      std::lock_guard lock(connMutex_);
      atLimit = connections_.size() >= limits_.maxConnections;
      if (atLimit) logIt = !std::exchange(acceptPaused_, true);
    }
    if (atLimit) {
      // The listen event stays disarmed: further clients wait in the listen
      // queue until a connection closes.
      if (logIt) {
        LogIpc(log::Level::Warn, "ipc connections at their limit of " + std::to_string(limits_.maxConnections) +
                                     ", new ones wait");
      }
      return;
    }
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
    conn->bodyCharge = InputBudget::Charge(&input_);
    conn->peer = os::PeerProcess::OfSocket(fd);
    conn->pid = conn->peer ? conn->peer->Pid() : 0;
    conn->wfd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (conn->wfd < 0) continue;  // conn's destructor closes fd
    {
      std::lock_guard lock(connMutex_);
      conn->id = nextConnId_++;
      conn->routes = RouteTable::Owner(conn->id);
      connections_.emplace(conn->id, conn);
    }
    // Its reader, when it gets one, reads first; the event stays disarmed.
    const bool reader = StartReader(conn);
    epoll_event rev{};
    rev.events = reader ? EPOLLONESHOT : kReadEvents;
    rev.data.u64 = conn->id << 2;
    epoll_event wev{};
    wev.events = EPOLLONESHOT;  // armed only while output waits
    wev.data.u64 = (conn->id << 2) | 1;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, conn->wfd, &wev) != 0 ||
        ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, conn->fd, &rev) != 0) {
      Close(conn);
    }
  }
  ResumeAccepting();
}

void ServerCore::ResumeAccepting() {
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

void ServerCore::DisarmRead(Connection& conn) {
  epoll_event ev{};
  ev.events = EPOLLONESHOT;  // no events: reports nothing, not even a hang-up
  ev.data.u64 = conn.id << 2;
  ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, conn.fd, &ev);
}

bool ServerCore::ReadFrames(Connection& c, std::vector<Frame>& frames, bool wait) {
  thread_local std::unique_ptr<char[]> scratch(new char[kScratchSize]);

  // A header may claim up to 16 MiB; memory follows the bytes actually sent.
  const char* shortOf = "out of memory";
  auto grow = [&](std::size_t want) {
    if (want <= c.bodyCap) return true;
    std::size_t cap = std::min<std::size_t>(c.item.bodySize + 1, std::max(want, c.bodyCap * 2));
    if (!c.bodyCharge.Grow(cap - c.bodyCap)) {
      shortOf = "requests hold the input bound";
      return false;
    }
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
    f.sender = c.peer;
    f.charge = std::move(c.bodyCharge);
    c.bodyCharge = InputBudget::Charge(&input_);
    c.bodyCap = 0;
    c.inBody = false;
    c.bodyGot = 0;
    const auto gaveWay = routes_.Add(f.item.syncMessageId, c.routes, c.pid);
    if (gaveWay && !std::exchange(c.unansweredLogged, true)) {
      LogIpc(log::Level::Warn, "ipc connection holds " + std::to_string(limits_.maxUnanswered) +
                                   " unanswered requests, the oldest give way (syncMessageId " +
                                   std::to_string(*gaveWay) + "), pid " + std::to_string(c.pid));
    }
    frames.push_back(std::move(f));
    return true;
  };
  // The connection is done: a part-read body gives its bytes back now, not
  // when the last reference to the connection goes.
  auto end = [&] {
    c.body.reset();
    c.bodyCap = 0;
    c.bodyCharge = InputBudget::Charge(&input_);
    return false;
  };
  auto fail = [&](const char* why) {
    LogIpc(log::Level::Warn, std::string("ipc connection closed: ") + why + ", pid " +
                                 std::to_string(c.pid));
    return end();
  };

  // Only a reader waits, and it waits in poll rather than in recv: a thread
  // asleep in recv is also woken whenever the client takes our last answer
  // off the socket, a wasted switch per request on both sides.
  if (wait) {
    pollfd ready{c.fd, POLLIN, 0};
    if (::poll(&ready, 1, -1) < 0) return errno == EINTR;
  }
  std::size_t budget = kReadBudget;
  while (budget > 0) {
    // A large body is read straight into its buffer.
    if (c.inBody && c.item.bodySize - c.bodyGot >= kScratchSize) {
      if (!grow(std::min<std::size_t>(c.item.bodySize, c.bodyGot + kReadBudget))) {
        return fail(shortOf);
      }
      ssize_t n = ::recv(c.fd, c.body.get() + c.bodyGot,
                         std::min<std::size_t>(c.item.bodySize, c.bodyCap) - c.bodyGot, MSG_DONTWAIT);
      if (n > 0) {
        c.bodyGot += static_cast<std::size_t>(n);
        budget -= std::min(budget, static_cast<std::size_t>(n));
        if (c.bodyGot == c.item.bodySize && !finish()) return fail(shortOf);
        continue;
      }
      if (n == 0) return end();
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    ssize_t n = ::recv(c.fd, scratch.get(), kScratchSize, MSG_DONTWAIT);
    if (n == 0) return end();
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
          return fail(shortOf);
        }
        c.inBody = true;
        if (c.item.bodySize == 0 && !finish()) return fail(shortOf);
      } else {
        std::size_t take = std::min<std::size_t>(c.item.bodySize - c.bodyGot, left);
        if (!grow(c.bodyGot + take)) return fail(shortOf);
        std::memcpy(c.body.get() + c.bodyGot, p, take);
        c.bodyGot += take;
        p += take;
        left -= take;
        if (c.bodyGot == c.item.bodySize && !finish()) return fail(shortOf);
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
  bool resume;
  {
    std::lock_guard lock(connMutex_);
    connections_.erase(conn->id);
    resume = std::exchange(acceptPaused_, false);
  }
  routes_.Close(conn->routes);
  if (resume) ResumeAccepting();
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

bool ServerCore::Enqueue(Frame& frame) {
  bool full, logIt = false;
  {
    std::lock_guard lock(queueMutex_);
    full = queue_.size() >= limits_.maxQueuedFrames;
    if (full) {
      logIt = !std::exchange(queueFullLogged_, true);
    } else {
      queue_.push_back(std::move(frame));
    }
  }
  if (full) {
    if (logIt) {
      LogIpc(log::Level::Warn, "ipc requests waiting for a worker at their limit of " +
                                   std::to_string(limits_.maxQueuedFrames) + ", readers run theirs");
    }
    return false;
  }
  uint64_t one = 1;
  [[maybe_unused]] ssize_t w = ::write(queueFd_, &one, sizeof(one));
  return true;
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
  // Whatever the callbacks check of the caller is checked of this sender.
  const Delivering delivering{frame.item.syncMessageId, frame.sender ? frame.sender->Pid() : 0};
  const Delivering* outerFrame = std::exchange(t_delivering, &delivering);
  std::optional<os::CallerScope> caller;
  if (frame.sender) caller.emplace(*frame.sender);
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
  t_delivering = outerFrame;
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
  if (t_delivering && t_delivering->syncMessageId == syncMessageId) {
    return static_cast<uint32_t>(t_delivering->pid);
  }
  return static_cast<uint32_t>(routes_.Pid(syncMessageId));
}

bool ServerCore::Post(const TagIPCMessageItem& item) {
  const uint64_t connId = routes_.Take(item.syncMessageId);
  auto conn = connId ? Find(connId) : nullptr;
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
                                                    options.workerThreads, options.readerThreads,
                                                    tarn::ipc::ServerLimits{options.maxConnections,
                                                                            options.maxUnanswered,
                                                                            options.maxQueuedFrames,
                                                                            options.maxBufferedInput})) {}

TarnCoreIPCMessageServer::~TarnCoreIPCMessageServer() { core_->Stop(); }

bool TarnCoreIPCMessageServer::Start() { return core_->Start(); }

void TarnCoreIPCMessageServer::Stop() { core_->Stop(); }

uint32_t TarnCoreIPCMessageServer::GetCallerPidByMsgId(int32_t syncMessageId) {
  return core_->CallerPid(syncMessageId);
}

std::size_t TarnCoreIPCMessageServer::ConnectionCount() const { return core_->ConnectionCount(); }

const std::string& TarnCoreIPCMessageServer::SocketPathInUse() const { return core_->Path(); }

#include "platform/ipc/ipc_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/ipc/server_core.h"

namespace tarn::ipc {

class ClientImpl {
 public:
  virtual ~ClientImpl() = default;
  virtual bool Register(uint32_t code, TarnCoreIPCMessageClient::Callback callback) = 0;
  virtual bool UnregisterAll() = 0;
  virtual bool Post(const TagIPCMessageItem& item) = 0;
  virtual bool Broadcast(const TagIPCMessageItem& item) = 0;
  virtual int SendSync(const TagIPCMessageItem& request, std::string& response, int timeoutMs) = 0;
  virtual bool Connected() const = 0;
};

namespace {

using Clock = std::chrono::steady_clock;

// The container's own sender: a view of the in-process server.
class LocalClient final : public ClientImpl {
 public:
  LocalClient() : core_(ServerCore::Current()) {}
  ~LocalClient() override { UnregisterAll(); }

  bool Register(uint32_t code, TarnCoreIPCMessageClient::Callback callback) override {
    if (!core_) return false;
    core_->Register(code, std::move(callback), this);
    return true;
  }
  bool UnregisterAll() override {
    if (core_) core_->UnregisterAll(this);
    return true;
  }
  bool Post(const TagIPCMessageItem& item) override { return core_ && core_->Post(item); }
  bool Broadcast(const TagIPCMessageItem& item) override { return core_ && core_->Broadcast(item); }
  int SendSync(const TagIPCMessageItem&, std::string&, int) override { return kClientInnerError; }
  bool Connected() const override { return core_ != nullptr; }

 private:
  std::shared_ptr<ServerCore> core_;
};

struct Frame {
  TagIPCMessageItem item;
  std::unique_ptr<char[]> body;
};

struct Conn {
  int fd = -1;
  uint64_t generation = 0;
  std::atomic<bool> dead{false};
  std::mutex writeMutex;
  // Read buffer: only the thread that holds the reader role touches it.
  std::vector<char> buffer = std::vector<char>(64 * 1024);
  std::size_t start = 0;
  std::size_t end = 0;
  ~Conn() {
    if (fd >= 0) ::close(fd);
  }
};

enum class ReadResult { Frame, Timeout, Dead };

// Reads one whole frame; deadline null: wait as long as it takes.
ReadResult ReadFrame(Conn& c, const Clock::time_point* deadline, Frame& out) {
  for (;;) {
    std::size_t have = c.end - c.start;
    if (have >= kFrameHeaderSize) {
      TagIPCMessageItem item;
      if (DecodeFrameHeader(reinterpret_cast<unsigned char*>(c.buffer.data() + c.start), item) !=
          HeaderCheck::Ok) {
        return ReadResult::Dead;
      }
      std::size_t need = kFrameHeaderSize + item.bodySize;
      if (have >= need) {
        out.body.reset(new char[item.bodySize + 1]);
        std::memcpy(out.body.get(), c.buffer.data() + c.start + kFrameHeaderSize, item.bodySize);
        out.body[item.bodySize] = '\0';
        item.body = out.body.get();
        out.item = item;
        c.start += need;
        if (c.start == c.end) c.start = c.end = 0;
        return ReadResult::Frame;
      }
      if (need > c.buffer.size()) c.buffer.resize(need);
    }
    if (c.start > 0 && c.buffer.size() - c.end < c.buffer.size() / 4) {
      std::memmove(c.buffer.data(), c.buffer.data() + c.start, have);
      c.start = 0;
      c.end = have;
    }
    if (c.end == c.buffer.size()) c.buffer.resize(c.buffer.size() * 2);
    // The wait is a poll for input, not a blocking receive: a thread asleep in
    // recv is also woken each time the server takes our request off the
    // socket (its room to write grew), and that wasted wake-up costs both
    // sides more than the extra system call.
    int waitMs = -1;
    if (deadline) {
      auto left = std::chrono::duration_cast<std::chrono::microseconds>(*deadline - Clock::now());
      // Round up so a wait never ends just short of its deadline; what is
      // there already still counts once it has passed.
      const long long ms = left.count() <= 0 ? 0 : (left.count() + 999) / 1000;
      waitMs = static_cast<int>(std::min<long long>(ms, INT_MAX));
    }
    pollfd ready{c.fd, POLLIN, 0};
    const int polled = ::poll(&ready, 1, waitMs);
    if (polled < 0 && errno != EINTR) return ReadResult::Dead;
    if (polled == 0) return ReadResult::Timeout;
    ssize_t n = ::recv(c.fd, c.buffer.data() + c.end, c.buffer.size() - c.end, MSG_DONTWAIT);
    if (n > 0) {
      c.end += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (deadline && Clock::now() >= *deadline) return ReadResult::Timeout;
      continue;
    }
    return ReadResult::Dead;
  }
}

enum class WriteResult {
  Sent,
  // The connection was already closed and none of the frame went out, so the
  // server cannot have seen it: safe to send again on a new connection.
  PeerGone,
  Failed,
};

WriteResult WriteFrame(Conn& c, const TagIPCMessageItem& item) {
  TagIPCMessageItem out = item;
  if (!out.body) out.bodySize = 0;
  if (out.bodySize > kMaxBodySize) return WriteResult::Failed;
  unsigned char header[kFrameHeaderSize];
  EncodeFrameHeader(out, header);
  const std::size_t total = kFrameHeaderSize + out.bodySize;
  std::lock_guard lock(c.writeMutex);
  if (c.dead) return WriteResult::PeerGone;
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
    ssize_t n = ::sendmsg(c.fd, &msg, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && sent == 0 && (errno == EPIPE || errno == ECONNRESET)) {
      // A stream socket refuses the whole write once the peer has closed.
      return WriteResult::PeerGone;
    } else {
      return WriteResult::Failed;
    }
  }
  return WriteResult::Sent;
}

// A connection to the container's socket. Whoever needs a frame reads it: a
// thread in SendMessageSync reads for itself while no one else does (so a lone
// caller costs no hand-off), and once callbacks are registered a background
// reader holds that role and hands responses to the waiting callers.
class SocketClient final : public ClientImpl {
 public:
  SocketClient(bool connectNow, bool reconnect) : path_(SocketPath()), reconnect_(reconnect) {
    if (connectNow) Connect();
  }

  ~SocketClient() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      if (conn_) ::shutdown(conn_->fd, SHUT_RDWR);  // ends a blocked read
      callbacks_.clear();
      dispatchQueue_.clear();
    }
    cv_.notify_all();
    if (reader_.joinable()) reader_.join();
    if (dispatcher_.joinable()) dispatcher_.join();
  }

  bool Register(uint32_t code, TarnCoreIPCMessageClient::Callback callback) override {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
    callbacks_.emplace_back(code, std::move(callback));
    if (!reader_.joinable()) {
      reader_ = std::thread([this] { ReaderLoop(); });
      dispatcher_ = std::thread([this] { DispatchLoop(); });
    }
    return true;
  }

  bool UnregisterAll() override {
    std::unique_lock lock(mutex_);
    callbacks_.clear();
    dispatchQueue_.clear();
    if (std::this_thread::get_id() != dispatcher_.get_id()) {
      cv_.wait(lock, [this] { return !dispatching_; });
    }
    return true;
  }

  bool Post(const TagIPCMessageItem& item) override {
    for (bool retried = false;; retried = true) {
      auto conn = Connect();
      if (!conn) return false;
      const WriteResult result = WriteFrame(*conn, item);
      if (result == WriteResult::Sent) return true;
      ConnDied(conn);
      if (!MayResend(result, retried)) return false;
    }
  }

  bool Broadcast(const TagIPCMessageItem& item) override { return Post(item); }

  int SendSync(const TagIPCMessageItem& request, std::string& response, int timeoutMs) override {
    if (timeoutMs <= 0) return kClientBadTimeout;
    if (!request.body) return kClientDataFormatError;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const int32_t id = request.syncMessageId;
    Waiter w;
    std::shared_ptr<Conn> conn;
    for (bool retried = false;; retried = true) {
      conn = Connect();
      if (!conn) return kClientServiceNotUsed;
      w = Waiter{};
      w.generation = conn->generation;
      {
        // Awaited before it is written: a reader thread may see the answer first.
        std::lock_guard lock(mutex_);
        if (!waiters_.emplace(id, &w).second) return kClientInnerError;
      }
      const WriteResult result = WriteFrame(*conn, request);
      if (result == WriteResult::Sent) break;
      ConnDied(conn);  // fails w along with the connection's other waiters
      {
        std::lock_guard lock(mutex_);
        auto it = waiters_.find(id);
        if (it != waiters_.end() && it->second == &w) waiters_.erase(it);
      }
      if (!MayResend(result, retried)) return kClientServiceNotUsed;
    }

    std::unique_lock lock(mutex_);
    while (!w.done) {
      if (!readerBusy_) {
        readerBusy_ = true;
        lock.unlock();
        bool timedOut = ReadFor(conn, w, deadline);
        lock.lock();
        readerBusy_ = false;
        cv_.notify_all();  // someone else may take the reader role now
        if (timedOut && !w.done) break;
      } else if (cv_.wait_until(lock, deadline) == std::cv_status::timeout && !w.done) {
        break;
      }
    }
    if (!w.done) {
      waiters_.erase(id);
      return kClientTimeout;
    }
    if (w.code != kClientOk) return w.code;
    response = std::move(w.body);
    return kClientOk;
  }

  bool Connected() const override {
    std::lock_guard lock(mutex_);
    return conn_ && !conn_->dead;
  }

 private:
  struct Waiter {
    uint64_t generation = 0;
    bool done = false;
    int code = kClientOk;
    std::string body;
  };

  // A connection that sat idle while the container restarted is only found
  // dead by the next write. With reconnect on, that write goes once more on a
  // new connection instead of costing the caller a failure; only when nothing
  // went out on the old one, so the server never gets it twice.
  bool MayResend(WriteResult result, bool retried) const {
    return reconnect_ && !retried && result == WriteResult::PeerGone;
  }

  std::shared_ptr<Conn> Connect() {
    std::lock_guard lock(mutex_);
    if (stopping_) return nullptr;
    if (conn_ && !conn_->dead) return conn_;
    if (conn_ && !reconnect_) return nullptr;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(addr.sun_path)) return nullptr;
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
      ::close(fd);
      return nullptr;
    }
    auto conn = std::make_shared<Conn>();
    conn->fd = fd;
    conn->generation = nextGeneration_++;
    conn_ = conn;
    cv_.notify_all();  // a background reader waits for a connection
    return conn;
  }

  void ConnDied(const std::shared_ptr<Conn>& conn) {
    std::lock_guard lock(mutex_);
    if (!conn->dead.exchange(true)) ::shutdown(conn->fd, SHUT_RDWR);
    for (auto it = waiters_.begin(); it != waiters_.end();) {
      if (it->second->generation == conn->generation) {
        it->second->done = true;
        it->second->code = kClientResponseError;
        it = waiters_.erase(it);
      } else {
        ++it;
      }
    }
    cv_.notify_all();
  }

  // Hands a frame to its waiter or to the callbacks. True when it was w's.
  bool Handle(Frame& frame, uint64_t generation, const Waiter* w) {
    std::lock_guard lock(mutex_);
    if (frame.item.messageCode == IpcResponseMessageCode) {
      auto it = waiters_.find(frame.item.syncMessageId);
      if (it != waiters_.end() && it->second->generation == generation) {
        Waiter* target = it->second;
        target->body.assign(frame.body.get(), ::strnlen(frame.body.get(), frame.item.bodySize));
        target->done = true;
        waiters_.erase(it);
        if (target != w) cv_.notify_all();
        return target == w;
      }
    }
    if (reader_.joinable() && !stopping_) {
      for (auto& [code, cb] : callbacks_) {
        if (code == frame.item.messageCode) {
          dispatchQueue_.push_back(std::move(frame));
          cv_.notify_all();
          break;
        }
      }
    }
    return false;
  }

  // Reads as the reader role until w is answered, the deadline passes (true)
  // or the connection ends.
  bool ReadFor(const std::shared_ptr<Conn>& conn, Waiter& w, Clock::time_point deadline) {
    for (;;) {
      Frame frame;
      switch (ReadFrame(*conn, &deadline, frame)) {
        case ReadResult::Timeout: return true;
        case ReadResult::Dead: ConnDied(conn); return false;
        case ReadResult::Frame:
          if (Handle(frame, conn->generation, &w)) return false;
          break;
      }
    }
  }

  void ReaderLoop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      cv_.wait(lock, [this] { return stopping_ || (conn_ && !conn_->dead && !readerBusy_); });
      if (stopping_) break;
      auto conn = conn_;
      readerBusy_ = true;
      lock.unlock();
      for (;;) {
        Frame frame;
        if (ReadFrame(*conn, nullptr, frame) != ReadResult::Frame) break;
        Handle(frame, conn->generation, nullptr);
      }
      ConnDied(conn);
      lock.lock();
      readerBusy_ = false;
      cv_.notify_all();
    }
  }

  void DispatchLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      cv_.wait(lock, [this] { return stopping_ || !dispatchQueue_.empty(); });
      if (stopping_) break;
      Frame frame = std::move(dispatchQueue_.front());
      dispatchQueue_.pop_front();
      std::vector<TarnCoreIPCMessageClient::Callback> targets;
      for (auto& [code, cb] : callbacks_) {
        if (code == frame.item.messageCode) targets.push_back(cb);
      }
      dispatching_ = true;
      lock.unlock();
      for (auto& cb : targets) {
        try {
          cb(frame.item);
        } catch (...) {
          // A callback's failure is its own; the next message still comes.
        }
      }
      lock.lock();
      dispatching_ = false;
      cv_.notify_all();
    }
  }

  const std::string path_;
  const bool reconnect_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::shared_ptr<Conn> conn_;
  uint64_t nextGeneration_ = 1;
  bool readerBusy_ = false;
  bool stopping_ = false;
  bool dispatching_ = false;
  std::unordered_map<int32_t, Waiter*> waiters_;
  std::vector<std::pair<uint32_t, TarnCoreIPCMessageClient::Callback>> callbacks_;
  std::deque<Frame> dispatchQueue_;
  std::thread reader_;
  std::thread dispatcher_;
};

}  // namespace
}  // namespace tarn::ipc

TarnCoreIPCMessageClient::TarnCoreIPCMessageClient(uint32_t ownAddress, bool connectNow,
                                                   bool reconnect) {
  if (ownAddress == IpcAddressContainer) {
    impl_ = std::make_unique<tarn::ipc::LocalClient>();
  } else {
    impl_ = std::make_unique<tarn::ipc::SocketClient>(connectNow, reconnect);
  }
}

TarnCoreIPCMessageClient::~TarnCoreIPCMessageClient() = default;

bool TarnCoreIPCMessageClient::RegisterMessageCallback(uint32_t messageCode, Callback callback) {
  return impl_->Register(messageCode, std::move(callback));
}

bool TarnCoreIPCMessageClient::UnRegisterMessageCallbackAll() { return impl_->UnregisterAll(); }

bool TarnCoreIPCMessageClient::PostIPCMessage(const TagIPCMessageItem& item) {
  return impl_->Post(item);
}

bool TarnCoreIPCMessageClient::BroadcastMessage(const TagIPCMessageItem& item) {
  return impl_->Broadcast(item);
}

int TarnCoreIPCMessageClient::SendMessageSync(const TagIPCMessageItem& request,
                                              std::string& response, int timeoutMs) {
  return impl_->SendSync(request, response, timeoutMs);
}

bool TarnCoreIPCMessageClient::IsConnected() const { return impl_->Connected(); }

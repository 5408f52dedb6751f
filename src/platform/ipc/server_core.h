#pragma once
// Internal to the IPC library: the running server that TarnCoreIPCMessageServer
// owns and that a container-side TarnCoreIPCMessageClient attaches to.
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/ipc/ipc_message.h"
#include "platform/ipc/server_limits.h"
#include "platform/os/process_identity.h"

namespace tarn::ipc {

using MessageCallback = std::function<void(TagIPCMessageItem&)>;

class ServerCore : public std::enable_shared_from_this<ServerCore> {
 public:
  ServerCore(std::string socketPath, int workers, int maxReaders, ServerLimits limits);
  ~ServerCore();

  bool Start();
  void Stop();

  uint32_t CallerPid(int32_t syncMessageId);
  // Sends to the connection that last sent item.syncMessageId and drops the entry.
  bool Post(const TagIPCMessageItem& item);
  // Sends to every open connection; true when at least one took it.
  bool Broadcast(const TagIPCMessageItem& item);

  void Register(uint32_t code, MessageCallback callback, const void* owner);
  // Removes the owner's callbacks and waits for those running on other threads.
  void UnregisterAll(const void* owner);

  std::size_t ConnectionCount() const;
  const std::string& Path() const { return path_; }

  // The server most recently started in this process, if it still runs.
  static std::shared_ptr<ServerCore> Current();

 private:
  struct Connection;
  struct Frame {
    TagIPCMessageItem item;
    std::unique_ptr<char[]> body;
    std::shared_ptr<const os::PeerProcess> sender;
    InputBudget::Charge charge;  // of body
  };
  struct Registration {
    uint32_t code;
    MessageCallback callback;
    const void* owner;
    int running = 0;
  };

  void WorkerLoop();
  void ReaderLoop(const std::shared_ptr<Connection>& conn);
  void WatchLoop();
  // Arms the read event of each reader that has run one request for a tick.
  void WatchLongRequests();
  void Accept();
  bool StartReader(const std::shared_ptr<Connection>& conn);
  // Reads what is there; complete frames are appended. With `wait`, the first
  // read blocks until the peer sends something. False: close it.
  bool ReadFrames(Connection& conn, std::vector<Frame>& frames, bool wait);
  // Reads a connection whose read event fired on a worker.
  void ReadOnWorker(const std::shared_ptr<Connection>& conn, std::vector<Frame>& frames);
  // Hands frames[1..] to idle workers and runs frames[0] on this thread.
  void DeliverAll(std::vector<Frame>& frames);
  void Close(const std::shared_ptr<Connection>& conn);
  void FlushPending(const std::shared_ptr<Connection>& conn);
  bool Send(const std::shared_ptr<Connection>& conn, const TagIPCMessageItem& item);
  void Deliver(Frame& frame);
  // False, with the frame left as it was, when the queue is at its bound.
  bool Enqueue(Frame& frame);
  void ResumeAccepting();
  std::shared_ptr<Connection> Find(uint64_t id);
  void RearmRead(Connection& conn);
  void DisarmRead(Connection& conn);

  std::string path_;
  int workerCount_;
  int maxReaders_;
  int listenFd_ = -1;
  int epollFd_ = -1;
  int stopFd_ = -1;   // eventfd, level-triggered: wakes every worker at stop
  int queueFd_ = -1;  // semaphore eventfd: one count per queued frame
  std::atomic<bool> running_{false};
  std::vector<std::thread> workers_;

  // Connections with a reader thread of their own; Stop waits for them.
  std::mutex readersMutex_;
  std::condition_variable readersCv_;
  int readers_ = 0;

  // Readers running a request, and the thread that lets the pool read for
  // those that take long; it sleeps while no reader is busy.
  std::atomic<int> busyReaders_{0};
  std::atomic<bool> watcherIdle_{false};
  std::mutex watchMutex_;
  std::condition_variable watchCv_;
  std::thread watcher_;

  mutable std::mutex connMutex_;
  std::unordered_map<uint64_t, std::shared_ptr<Connection>> connections_;
  uint64_t nextConnId_ = 16;  // below: the fixed event keys
  bool acceptPaused_ = false;  // at maxConnections; under connMutex_

  ServerLimits limits_;
  RouteTable routes_;
  InputBudget input_;

  std::mutex queueMutex_;
  std::deque<Frame> queue_;
  bool queueFullLogged_ = false;  // under queueMutex_

  std::mutex regMutex_;
  std::condition_variable regCv_;
  std::vector<std::shared_ptr<Registration>> registrations_;
};

}  // namespace tarn::ipc

#pragma once
// Internal to the IPC library: what bounds the state that clients can make the
// server hold, whatever they send.
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>

namespace tarn::ipc {

struct ServerLimits {
  std::size_t maxConnections;     // more wait in the listen queue
  std::size_t maxUnanswered;      // route entries of one connection; past it the oldest give way
  std::size_t maxQueuedFrames;    // frames waiting for a worker; past it the reading thread runs them
  std::size_t maxBufferedInput;   // request bytes held; past it the connection that wants more is closed
};

// Where an answer goes: per syncMessageId, the connection that sent it last
// and the pid of its sender. Each connection's entries are kept oldest first,
// at most `perConnection` of them, and all dropped when it closes.
class RouteTable {
 public:
  struct Node;
  // A connection's part of the table; the connection keeps it, the table
  // guards it.
  class Owner {
   public:
    explicit Owner(std::uint64_t connId) : connId_(connId) {}

   private:
    friend class RouteTable;
    std::uint64_t connId_;
    Node* oldest_ = nullptr;
    Node* newest_ = nullptr;
    std::size_t count_ = 0;
    bool closed_ = false;
  };

  explicit RouteTable(std::size_t perConnection) : perConnection_(perConnection) {}

  // Enters id for the owner, taking it from whichever connection had it. Gives
  // the id that made way when the owner was at its bound. Nothing is entered
  // for a closed owner.
  std::optional<std::int32_t> Add(std::int32_t id, Owner& owner, pid_t pid);
  // The connection to answer id on, and the entry is dropped; 0 when none.
  std::uint64_t Take(std::int32_t id);
  // The pid of the connection that sent id last; 0 when none.
  pid_t Pid(std::int32_t id);
  // Drops the owner's entries; it gets none from now on.
  void Close(Owner& owner);

 private:
  void Unlink(Node& node);

  std::mutex mutex_;
  std::unordered_map<std::int32_t, Node> routes_;
  std::size_t perConnection_;
};

struct RouteTable::Node {
  std::int32_t id = 0;
  pid_t pid = 0;
  Owner* owner = nullptr;
  Node* older = nullptr;
  Node* newer = nullptr;
};

// The bytes of request bodies that the server holds, read or being read and
// not yet delivered, against one bound.
class InputBudget {
 public:
  explicit InputBudget(std::size_t limit) : limit_(limit) {}

  // What one buffer holds of the budget; given back when it ends.
  class Charge {
   public:
    explicit Charge(InputBudget* budget = nullptr) : budget_(budget) {}
    Charge(Charge&& other) noexcept : budget_(other.budget_), bytes_(other.bytes_) { other.bytes_ = 0; }
    Charge& operator=(Charge&& other) noexcept;
    ~Charge() { Release(); }
    // False, and nothing taken, when the budget can't hold `bytes` more.
    bool Grow(std::size_t bytes);

   private:
    void Release();
    InputBudget* budget_;
    std::size_t bytes_ = 0;
  };

 private:
  std::size_t limit_;
  std::atomic<std::size_t> used_{0};
};

}  // namespace tarn::ipc

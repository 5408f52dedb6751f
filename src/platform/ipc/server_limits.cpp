#include "platform/ipc/server_limits.h"

namespace tarn::ipc {

std::optional<std::int32_t> RouteTable::Add(std::int32_t id, Owner& owner, pid_t pid) {
  std::lock_guard lock(mutex_);
  if (owner.closed_) return std::nullopt;
  auto [it, fresh] = routes_.try_emplace(id);
  Node& node = it->second;
  if (!fresh) Unlink(node);
  node.id = id;
  node.pid = pid;
  node.owner = &owner;
  node.older = owner.newest_;
  node.newer = nullptr;
  (owner.newest_ ? owner.newest_->newer : owner.oldest_) = &node;
  owner.newest_ = &node;
  ++owner.count_;
  if (owner.count_ <= perConnection_) return std::nullopt;
  const std::int32_t oldest = owner.oldest_->id;
  Unlink(*owner.oldest_);
  routes_.erase(oldest);
  return oldest;
}

std::uint64_t RouteTable::Take(std::int32_t id) {
  std::lock_guard lock(mutex_);
  auto it = routes_.find(id);
  if (it == routes_.end()) return 0;
  const std::uint64_t connId = it->second.owner->connId_;
  Unlink(it->second);
  routes_.erase(it);
  return connId;
}

pid_t RouteTable::Pid(std::int32_t id) {
  std::lock_guard lock(mutex_);
  auto it = routes_.find(id);
  return it == routes_.end() ? 0 : it->second.pid;
}

void RouteTable::Close(Owner& owner) {
  std::lock_guard lock(mutex_);
  owner.closed_ = true;
  while (owner.oldest_) {
    const std::int32_t id = owner.oldest_->id;
    Unlink(*owner.oldest_);
    routes_.erase(id);
  }
}

void RouteTable::Unlink(Node& node) {
  Owner& owner = *node.owner;
  (node.older ? node.older->newer : owner.oldest_) = node.newer;
  (node.newer ? node.newer->older : owner.newest_) = node.older;
  --owner.count_;
  node.older = node.newer = nullptr;
}

InputBudget::Charge& InputBudget::Charge::operator=(Charge&& other) noexcept {
  if (this != &other) {
    Release();
    budget_ = other.budget_;
    bytes_ = other.bytes_;
    other.bytes_ = 0;
  }
  return *this;
}

bool InputBudget::Charge::Grow(std::size_t bytes) {
  if (!budget_) return true;
  if (budget_->used_.fetch_add(bytes) + bytes > budget_->limit_) {
    budget_->used_.fetch_sub(bytes);
    return false;
  }
  bytes_ += bytes;
  return true;
}

void InputBudget::Charge::Release() {
  if (budget_ && bytes_) budget_->used_.fetch_sub(bytes_);
  bytes_ = 0;
}

}  // namespace tarn::ipc

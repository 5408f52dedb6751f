#include "platform/ipc/signature_manager.h"

#include <sys/types.h>

#include <utility>
#include <vector>

#include "platform/os/process_identity.h"

namespace {

// The start time of the process that has this pid now; for the caller of a
// request being served it is known already.
std::uint64_t StartTimeOf(uint32_t processId) {
  return processId <= 0x7FFFFFFFu ? tarn::os::ProcessStartTime(static_cast<pid_t>(processId)) : 0;
}

}  // namespace

SignatureManager* SignatureManager::GetInstance() {
  static auto* instance = new SignatureManager;  // request threads may outlive static teardown
  return instance;
}

int SignatureManager::FindSignatured(uint32_t processId, const std::string& clientId) {
  const std::uint64_t started = StartTimeOf(processId);
  std::lock_guard lock(mutex_);
  auto it = entries_.find(processId);
  if (it == entries_.end()) return 2;
  if (started == 0 || it->second.startTime != started) {
    entries_.erase(it);  // its process has ended
    return 2;
  }
  return it->second.clientId == clientId ? 0 : 1;
}

bool SignatureManager::AddSignatureWhiteList(uint32_t processId, const std::string& clientId) {
  const std::uint64_t started = StartTimeOf(processId);
  if (started == 0) return false;
  std::vector<std::pair<uint32_t, std::uint64_t>> others;
  {
    std::lock_guard lock(mutex_);
    entries_[processId] = Entry{clientId, started};
    for (const auto& [pid, entry] : entries_) {
      if (pid != processId) others.emplace_back(pid, entry.startTime);
    }
  }
  // Looked at outside the lock: requests of listed callers don't wait for /proc.
  std::vector<std::pair<uint32_t, std::uint64_t>> ended;
  for (const auto& other : others) {
    if (StartTimeOf(other.first) != other.second) ended.push_back(other);
  }
  std::lock_guard lock(mutex_);
  for (const auto& [pid, startTime] : ended) {
    auto it = entries_.find(pid);
    if (it != entries_.end() && it->second.startTime == startTime) entries_.erase(it);
  }
  return true;
}

bool SignatureManager::RemoveSignatureWhiteList(uint32_t processId) {
  std::lock_guard lock(mutex_);
  return entries_.erase(processId) > 0;
}

void SignatureManager::Clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
}

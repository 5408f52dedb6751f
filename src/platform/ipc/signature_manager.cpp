#include "platform/ipc/signature_manager.h"

SignatureManager* SignatureManager::GetInstance() {
  static auto* instance = new SignatureManager;  // request threads may outlive static teardown
  return instance;
}

int SignatureManager::FindSignatured(uint32_t processId, const std::string& clientId) {
  std::lock_guard lock(mutex_);
  auto it = entries_.find(processId);
  if (it == entries_.end()) return 2;
  return it->second == clientId ? 0 : 1;
}

bool SignatureManager::AddSignatureWhiteList(uint32_t processId, const std::string& clientId) {
  std::lock_guard lock(mutex_);
  entries_[processId] = clientId;
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

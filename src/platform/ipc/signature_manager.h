#pragma once
// The signature whitelist: which process was verified for which client_id.
// Entries live until removed; nothing here notices a process ending, so a
// reused pid keeps the old entry until a request claims another client_id.
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

class SignatureManager {
 public:
  static SignatureManager* GetInstance();

  // 0: listed with this client_id; 1: listed with another; 2: not listed.
  int FindSignatured(uint32_t processId, const std::string& clientId);
  // Lists (or re-lists) the process with this client_id.
  bool AddSignatureWhiteList(uint32_t processId, const std::string& clientId);
  // False when the process wasn't listed.
  bool RemoveSignatureWhiteList(uint32_t processId);

  // Empties the list (tests).
  void Clear();

 private:
  std::mutex mutex_;
  std::unordered_map<uint32_t, std::string> entries_;
};

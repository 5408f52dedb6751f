#pragma once
// The signature whitelist: which process was verified for which client_id.
// An entry holds the process by its pid and start time, so it answers only
// for that process: a later process that is given the same pid finds no
// entry. Entries of processes that have ended are dropped whenever another
// process is listed.
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

class SignatureManager {
 public:
  static SignatureManager* GetInstance();

  // 0: listed with this client_id; 1: listed with another; 2: not listed.
  int FindSignatured(uint32_t processId, const std::string& clientId);
  // Lists (or re-lists) the process with this client_id; false when it has ended.
  bool AddSignatureWhiteList(uint32_t processId, const std::string& clientId);
  // False when the process wasn't listed.
  bool RemoveSignatureWhiteList(uint32_t processId);

  // Empties the list (tests).
  void Clear();

 private:
  struct Entry {
    std::string clientId;
    std::uint64_t startTime;
  };
  std::mutex mutex_;
  std::unordered_map<uint32_t, Entry> entries_;
};

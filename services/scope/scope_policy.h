#pragma once
// The reference scope service's decisions, from the machine's policy file
// <root>/etc/tarncore/scope-policy.json:
//
//   { "clients": { "<client_id>": {
//       "fingerprints": ["<64 hex>"], "whitelist": true,
//       "permissions": ["<permission>"],
//       "scopes": [ { "id": 1, "name": "", "url": "", "permissions": [""] } ] } } }
//
// The file is looked at on every question and read again when its identity,
// size or modification time changed. A missing or unreadable file, or one that
// isn't such a JSON object, refuses everything.
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tarn::scope {

struct PolicyScope {
  int32_t id = 0;
  std::string name;
  std::string url;
  std::vector<std::string> permissions;
};

struct PolicyClient {
  std::vector<std::string> fingerprints;  // upper case
  bool whitelist = true;
  std::vector<std::string> permissions;
  std::vector<PolicyScope> scopes;
};

// Codes of the fingerprint check.
inline constexpr int32_t kFingerprintAccepted = 0;
inline constexpr int32_t kFingerprintAcceptedNoWhitelist = 1000;
inline constexpr int32_t kFingerprintRefused = 1;

class ScopePolicy {
 public:
  explicit ScopePolicy(std::string path);

  // 0 when the fingerprint is listed for the client (1000 when the client's
  // "whitelist" is false), 1 otherwise. Hex compares without case.
  int32_t CheckCertFingerprint(const std::string& appId, const std::string& fingerprint);
  // Whether the client holds the permission: granted to the client as a whole,
  // or by one of its scopes (with a scope uri, only by the scope of that url).
  bool CheckApiPermission(const std::string& appId, const std::string& permission, const std::string& scopeUri);
  bool CheckPermission(const std::string& appId, const std::string& permission);
  std::vector<PolicyScope> GetScopes(const std::string& appId);

  // What the service remembers of its callers (in memory only).
  void SetLastCheckTime(const std::string& appId);
  void InvokeOpenGateway(const std::string& appId);
  std::time_t LastCheckTime(const std::string& appId);
  std::time_t LastOpenGateway(const std::string& appId);

  const std::string& path() const { return path_; }

 private:
  struct FileStamp {
    bool present = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec mtime{};
    bool operator==(const FileStamp& o) const;
  };
  // Re-reads the file when it changed; call with mutex_ held.
  void Refresh();
  const PolicyClient* Find(const std::string& appId) const;

  std::string path_;
  std::mutex mutex_;
  FileStamp stamp_;
  bool loaded_ = false;
  std::map<std::string, PolicyClient> clients_;
  std::map<std::string, std::time_t> lastCheck_;
  std::map<std::string, std::time_t> lastGateway_;
};

// The machine's policy file.
std::string DefaultPolicyPath();

// Reads a policy file as the service does: a regular file of at most 4 MiB.
bool ReadPolicyFile(const std::string& path, std::string& text);
// Parses a policy's text; entries that aren't objects and values of the wrong
// kind are passed over. False when the text isn't a policy at all (the
// service then refuses everything), with the reason in error.
bool ParsePolicy(const std::string& text, std::map<std::string, PolicyClient>& clients,
                 std::string& error);

}  // namespace tarn::scope

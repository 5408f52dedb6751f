#include "scope_policy.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "platform/os/places.h"

namespace tarn::scope {

namespace {

// A policy larger than this is not a policy.
constexpr off_t kMaxPolicySize = 4 * 1024 * 1024;

std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

std::vector<std::string> Strings(const Json::Value& array, bool upper = false) {
  std::vector<std::string> out;
  if (!array.isArray()) return out;
  for (const auto& item : array)
    if (item.isString()) out.push_back(upper ? Upper(item.asString()) : item.asString());
  return out;
}

bool Contains(const std::vector<std::string>& list, const std::string& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

// Plain reads on an open descriptor: the sandboxed build may open read-only
// and nothing else.
bool ReadPolicyFile(const std::string& path, std::string& out) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxPolicySize;
  out.clear();
  char buffer[8192];
  while (ok) {
    ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    out.append(buffer, static_cast<std::size_t>(n));
    if (out.size() > static_cast<std::size_t>(kMaxPolicySize)) ok = false;
  }
  ::close(fd);
  return ok;
}

bool ParsePolicy(const std::string& text, std::map<std::string, PolicyClient>& clients,
                 std::string& error) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &error)) return false;
  } catch (const Json::RuntimeError& e) {
    error = e.what();  // nested deeper than the reader goes
    return false;
  }
  if (!root.isObject() || !root["clients"].isObject()) {
    error = "no \"clients\" object at the top";
    return false;
  }
  const Json::Value& all = root["clients"];
  for (const auto& id : all.getMemberNames()) {
    const Json::Value& entry = all[id];
    if (!entry.isObject()) continue;
    PolicyClient client;
    client.fingerprints = Strings(entry["fingerprints"], true);
    client.whitelist = !entry["whitelist"].isBool() || entry["whitelist"].asBool();
    client.permissions = Strings(entry["permissions"]);
    if (entry["scopes"].isArray()) {
      for (const auto& s : entry["scopes"]) {
        if (!s.isObject()) continue;
        PolicyScope scope;
        if (s["id"].isInt()) scope.id = s["id"].asInt();
        if (s["name"].isString()) scope.name = s["name"].asString();
        if (s["url"].isString()) scope.url = s["url"].asString();
        scope.permissions = Strings(s["permissions"]);
        client.scopes.push_back(std::move(scope));
      }
    }
    clients.emplace(id, std::move(client));
  }
  return true;
}

std::string DefaultPolicyPath() { return tarn::os::MachinePath("etc/tarncore/scope-policy.json"); }

bool ScopePolicy::FileStamp::operator==(const FileStamp& o) const {
  return present == o.present && dev == o.dev && ino == o.ino && size == o.size &&
         mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
}

ScopePolicy::ScopePolicy(std::string path) : path_(std::move(path)) {}

void ScopePolicy::Refresh() {
  FileStamp now;
  struct stat st {};
  if (::stat(path_.c_str(), &st) == 0) {
    now.present = true;
    now.dev = st.st_dev;
    now.ino = st.st_ino;
    now.size = st.st_size;
    now.mtime = st.st_mtim;
  }
  if (loaded_ && now == stamp_) return;
  stamp_ = now;
  loaded_ = true;
  clients_.clear();
  std::string text;
  std::string error;
  std::map<std::string, PolicyClient> parsed;
  if (now.present && ReadPolicyFile(path_, text) && ParsePolicy(text, parsed, error)) clients_ = std::move(parsed);
}

const PolicyClient* ScopePolicy::Find(const std::string& appId) const {
  auto it = clients_.find(appId);
  return it == clients_.end() ? nullptr : &it->second;
}

int32_t ScopePolicy::CheckCertFingerprint(const std::string& appId, const std::string& fingerprint) {
  std::lock_guard<std::mutex> lock(mutex_);
  Refresh();
  const PolicyClient* client = Find(appId);
  if (!client || fingerprint.empty() || !Contains(client->fingerprints, Upper(fingerprint)))
    return kFingerprintRefused;
  return client->whitelist ? kFingerprintAccepted : kFingerprintAcceptedNoWhitelist;
}

bool ScopePolicy::CheckApiPermission(const std::string& appId, const std::string& permission,
                                     const std::string& scopeUri) {
  std::lock_guard<std::mutex> lock(mutex_);
  Refresh();
  const PolicyClient* client = Find(appId);
  if (!client || permission.empty()) return false;
  if (Contains(client->permissions, permission)) return true;
  for (const auto& scope : client->scopes)
    if ((scopeUri.empty() || scope.url == scopeUri) && Contains(scope.permissions, permission)) return true;
  return false;
}

bool ScopePolicy::CheckPermission(const std::string& appId, const std::string& permission) {
  return CheckApiPermission(appId, permission, std::string());
}

std::vector<PolicyScope> ScopePolicy::GetScopes(const std::string& appId) {
  std::lock_guard<std::mutex> lock(mutex_);
  Refresh();
  const PolicyClient* client = Find(appId);
  return client ? client->scopes : std::vector<PolicyScope>{};
}

void ScopePolicy::SetLastCheckTime(const std::string& appId) {
  std::lock_guard<std::mutex> lock(mutex_);
  lastCheck_[appId] = std::time(nullptr);
}

void ScopePolicy::InvokeOpenGateway(const std::string& appId) {
  std::lock_guard<std::mutex> lock(mutex_);
  lastGateway_[appId] = std::time(nullptr);
}

std::time_t ScopePolicy::LastCheckTime(const std::string& appId) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = lastCheck_.find(appId);
  return it == lastCheck_.end() ? 0 : it->second;
}

std::time_t ScopePolicy::LastOpenGateway(const std::string& appId) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = lastGateway_.find(appId);
  return it == lastGateway_.end() ? 0 : it->second;
}

}  // namespace tarn::scope

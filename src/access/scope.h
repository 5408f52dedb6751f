#pragma once
// What kits read of a client's scopes. The container program exports this
// class and TarnGetScopeByAppId dynamically; a kit declares them through this
// header (it includes nothing of the container) and resolves them at load.
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#define TARN_SCOPE_EXPORT __attribute__((visibility("default")))

class TARN_SCOPE_EXPORT Scope {
 public:
  Scope();
  Scope(const Scope& other);
  ~Scope();
  Scope& operator=(const Scope& other);

  void AddId(int id);
  void AddName(std::string name);
  void AddUrl(std::string url);
  // Appends one permission.
  void AddPermissionsList(std::string permission);

  int GetId() const;
  std::string GetName() const;
  std::string GetUrl() const;
  const std::vector<std::string>& GetPermissions() const;

 private:
  int32_t id_ = 0;
  std::string name_;
  std::string url_;
  std::vector<std::string> permissions_;
};

// Appends the client's scopes, as the scope service gives them, to `scopes`.
// Always returns 0; an unanswered question leaves the list as it was.
TARN_SCOPE_EXPORT int TarnGetScopeByAppId(const std::string& appId, std::list<Scope>& scopes);

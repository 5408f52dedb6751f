#pragma once
// What a kit reads of a client's scopes. TarnCoreContainer defines and exports
// these; a kit that uses them resolves them from the program when it is loaded
// (so it loads into TarnCoreContainer only). The layout of Scope is part of the
// contract: kits copy and destroy the objects the container fills in.
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

// Appends the scopes the scope service gives for the client appId (a request
// header's "client_id") to scopes. Always returns 0; a question the service
// does not answer leaves the list as it was. May take seconds while the
// service is busy: call it from the request's thread, not from Init.
TARN_SCOPE_EXPORT int TarnGetScopeByAppId(const std::string& appId, std::list<Scope>& scopes);

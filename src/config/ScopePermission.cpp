// The configuration's door to the scope service for the framework's permission
// questions: the decision is the service's, made through the proxy.
#include "access/scope_proxy.h"
#include "config/ConfigManager.h"

bool ConfigManager::CheckScopePermission(std::string permission, std::string clientId) {
  return ScopeProxy::Instance().CheckPermission(clientId, permission);
}

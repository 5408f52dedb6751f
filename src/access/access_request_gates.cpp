#include "access/access_request_gates.h"

#include "access/api_gates.h"
#include "access/scope_proxy.h"
#include "access/scope_util.h"

bool AccessRequestGates::IsTarnCorerequest(uint32_t processId, const RequestHeader& header) {
  return tarn::access::KitApiGates::IsTarnCorerequest(processId, header);
}

int AccessRequestGates::CheckCertFingerprint(const std::string& clientId, uint32_t processId,
                                             const std::string& transactionId, const std::string& pkgName,
                                             const std::string& apiName) {
  return ScopeUtil::CheckCertFingerprint(clientId, processId, transactionId, pkgName, apiName);
}

void AccessRequestGates::SetLastCheckTime(const std::string& clientId) {
  ScopeProxy::Instance().SetLastCheckTime(clientId);
}

#pragma once
// The access-control part of the pipeline's seam: caller verification by the
// scope service, the whitelist's last-seen note, and the core-process test.
// Whoever wires the container derives the process's gates from this class
// (instead of DefaultRequestGates) and overrides the other subsystems' parts.
#include "pipeline/RequestGates.h"

class AccessRequestGates : public DefaultRequestGates {
 public:
  // KitApiGates::IsTarnCorerequest.
  bool IsTarnCorerequest(uint32_t processId, const RequestHeader& header) override;
  // ScopeUtil::CheckCertFingerprint.
  int CheckCertFingerprint(const std::string& clientId, uint32_t processId, const std::string& transactionId,
                           const std::string& pkgName, const std::string& apiName) override;
  // ScopeProxy::Instance().SetLastCheckTime.
  void SetLastCheckTime(const std::string& clientId) override;
};

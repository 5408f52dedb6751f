#pragma once
// The serving side of the scope service: reads a transaction's request
// parcel, asks the policy, writes the reply parcel. Both builds (in-process
// library and sandboxed program) serve through this object.
#include <memory>

#include "platform/zbrf/zobject.h"
#include "scope_policy.h"

namespace tarn::scope {

class ScopeServiceObject : public tarn::zbrf::ZObject {
 public:
  explicit ScopeServiceObject(std::shared_ptr<ScopePolicy> policy);
  bool OnTransact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>& data,
                  const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t flags) override;
  ScopePolicy& policy() { return *policy_; }

 private:
  std::shared_ptr<ScopePolicy> policy_;
};

// A service over the machine's policy file.
std::shared_ptr<ScopeServiceObject> MakeScopeService();

}  // namespace tarn::scope

#include "scope_service_object.h"

#include <string>

#include "platform/zbrf/zparcelable.h"

namespace tarn::scope {

namespace {

using tarn::zbrf::ZParcel;

// Transaction codes of the protocol.
enum : uint32_t {
  kCheckCertFingerprint = 1,
  kCheckApiPermission = 2,
  kCheckPermission = 3,
  kSetLastCheckTime = 4,
  kGetScopeByAppId = 5,
  kInvokeOpenGateway = 6,
};

// The request's string fields 1 to 3; others are skipped.
struct Request {
  std::string field[4];
};

bool ReadRequest(ZParcel& data, Request& request) {
  if (!data.ReadHeader()) return false;
  for (uint32_t tag = data.ReadTag(); tag != 0; tag = data.ReadTag()) {
    const uint32_t field = data.TagField(tag);
    if (field >= 1 && field <= 3) {
      data.ReadString(request.field[field]);
    } else {
      data.SkipField(tag);
    }
  }
  return !data.HasError();
}

// One scope as the nested record of a reply (field 1 id, 2 name, 3 url, 4 permission each).
class ScopeRecord : public tarn::zbrf::ZParcelable {
 public:
  explicit ScopeRecord(const PolicyScope& scope) : scope_(scope) {}
  bool WriteToParcel(ZParcel& parcel) const override {
    parcel.WriteInt32(1, scope_.id);
    parcel.WriteString(2, scope_.name);
    parcel.WriteString(3, scope_.url);
    parcel.WriteStringVector(4, scope_.permissions);
    return true;
  }
  bool ReadFromParcel(ZParcel&) override { return false; }
  uint32_t Size() const override {
    ZParcel sizer;
    uint32_t size = sizer.SizeInt32(1, scope_.id) + sizer.SizeString(2, scope_.name) +
                    sizer.SizeString(3, scope_.url);
    for (const auto& p : scope_.permissions) size += sizer.SizeString(4, p);
    return size;
  }

 private:
  const PolicyScope& scope_;
};

}  // namespace

ScopeServiceObject::ScopeServiceObject(std::shared_ptr<ScopePolicy> policy) : policy_(std::move(policy)) {}

bool ScopeServiceObject::OnTransact(uint32_t code, const std::shared_ptr<ZParcel>& data,
                                    const std::shared_ptr<ZParcel>& reply, uint32_t) {
  if (!data || !reply) return false;
  Request request;
  if (!ReadRequest(*data, request)) return false;
  const std::string& appId = request.field[1];
  switch (code) {
    case kCheckCertFingerprint:
      reply->WriteStatus(0);
      reply->WriteInt32(1, policy_->CheckCertFingerprint(appId, request.field[2]));
      return true;
    case kCheckApiPermission:
      reply->WriteStatus(0);
      reply->WriteBool(1, policy_->CheckApiPermission(appId, request.field[2], request.field[3]));
      return true;
    case kCheckPermission:
      reply->WriteStatus(0);
      reply->WriteBool(1, policy_->CheckPermission(appId, request.field[2]));
      return true;
    case kSetLastCheckTime:
      policy_->SetLastCheckTime(appId);
      reply->WriteStatus(0);
      return true;
    case kGetScopeByAppId:
      reply->WriteStatus(0);
      for (const auto& scope : policy_->GetScopes(appId)) reply->WriteParcelable(1, ScopeRecord(scope));
      return true;
    case kInvokeOpenGateway:
      policy_->InvokeOpenGateway(appId);
      reply->WriteStatus(0);
      return true;
    default:
      return false;
  }
}

std::shared_ptr<ScopeServiceObject> MakeScopeService() {
  return std::make_shared<ScopeServiceObject>(std::make_shared<ScopePolicy>(DefaultPolicyPath()));
}

}  // namespace tarn::scope

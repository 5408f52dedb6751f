#include "access/scope_service.h"

#include "platform/log/tarn_log.h"

using tarn::zbrf::ZObject;
using tarn::zbrf::ZParcel;

namespace service {

ScopeItem::ScopeItem() : sizer_(ZParcel::CreateInstance()) {}
ScopeItem::~ScopeItem() = default;

bool ScopeItem::WriteToParcel(ZParcel& parcel) const {
  parcel.WriteInt32(1, id);
  parcel.WriteString(2, name);
  parcel.WriteString(3, url);
  parcel.WriteStringVector(4, permissions);
  return true;
}

bool ScopeItem::ReadFromParcel(ZParcel& parcel) {
  for (uint32_t tag = parcel.ReadTag(); tag != 0; tag = parcel.ReadTag()) {
    switch (parcel.TagField(tag)) {
      case 1: parcel.ReadInt32(id); break;
      case 2: parcel.ReadString(name); break;
      case 3: parcel.ReadString(url); break;
      case 4: {
        std::string permission;
        if (parcel.ReadString(permission)) permissions.push_back(std::move(permission));
        break;
      }
      default: parcel.SkipField(tag); break;
    }
  }
  return true;
}

uint32_t ScopeItem::Size() const {
  uint32_t size = sizer_->SizeInt32(1, id) + sizer_->SizeString(2, name) + sizer_->SizeString(3, url);
  for (const auto& permission : permissions) size += sizer_->SizeString(4, permission);
  return size;
}

namespace {

// One exchange: a fresh pair of parcels, the header and the caller's fields.
template <class Fill>
std::shared_ptr<ZParcel> Exchange(ZObject& remote, uint32_t code, Fill fill, uint32_t flags = 0) {
  auto data = ZParcel::CreateInstance();
  auto reply = ZParcel::CreateInstance();
  data->WriteHeader();
  fill(*data);
  if (!remote.Transact(code, data, reply, flags)) return nullptr;
  return reply;
}

// Reads a reply's status word, then every field 1 with `read`; others are skipped.
template <class Read>
void ReadReply(ZParcel& reply, Read read) {
  int32_t status = 0;
  reply.ReadStatus(status);
  for (uint32_t tag = reply.ReadTag(); tag != 0; tag = reply.ReadTag()) {
    if (reply.TagField(tag) == 1) {
      read(reply);
    } else {
      reply.SkipField(tag);
    }
  }
}

}  // namespace

ZpScopeService::ZpScopeService(std::shared_ptr<ZObject> remote) : remote_(std::move(remote)) {}
ZpScopeService::~ZpScopeService() = default;

bool ZpScopeService::OnTransact(uint32_t, const std::shared_ptr<ZParcel>&, const std::shared_ptr<ZParcel>&,
                                uint32_t) {
  return false;
}

bool ZpScopeService::CheckCertFingerprint(const std::string& appId, const std::string& packageFingerprint,
                                          int32_t& code) {
  if (!remote_) return false;
  auto reply = Exchange(*remote_, kCheckCertFingerprint, [&](ZParcel& p) {
    p.WriteString(1, appId);
    p.WriteString(2, packageFingerprint);
  });
  if (!reply) return false;
  ReadReply(*reply, [&](ZParcel& p) { p.ReadInt32(code); });
  return true;
}

bool ZpScopeService::CheckApiPermission(const std::string& appId, const std::string& permission,
                                        const std::string& scopeUri, bool& allowed) {
  if (!remote_) return false;
  auto reply = Exchange(*remote_, kCheckApiPermission, [&](ZParcel& p) {
    p.WriteString(1, appId);
    p.WriteString(2, permission);
    p.WriteString(3, scopeUri);
  });
  if (!reply) return false;
  ReadReply(*reply, [&](ZParcel& p) { p.ReadBool(allowed); });
  return true;
}

bool ZpScopeService::CheckPermission(const std::string& appId, const std::string& permission, bool& allowed) {
  if (!remote_) return false;
  auto reply = Exchange(*remote_, kCheckPermission, [&](ZParcel& p) {
    p.WriteString(1, appId);
    p.WriteString(2, permission);
  });
  if (!reply) return false;
  ReadReply(*reply, [&](ZParcel& p) { p.ReadBool(allowed); });
  return true;
}

// Its reply is never read, so it is sent one-way: a request thread does not
// wait for the service.
bool ZpScopeService::SetLastCheckTime(const std::string& appId) {
  if (!remote_) return false;
  return Exchange(*remote_, kSetLastCheckTime, [&](ZParcel& p) { p.WriteString(1, appId); },
                  tarn::zbrf::kFlagOneWay) != nullptr;
}

bool ZpScopeService::GetScopeByAppId(const std::string& appId, std::vector<std::shared_ptr<ScopeItem>>& items) {
  if (!remote_) return false;
  auto reply = Exchange(*remote_, kGetScopeByAppId, [&](ZParcel& p) { p.WriteString(1, appId); });
  if (!reply) return false;
  ReadReply(*reply, [&](ZParcel& p) {
    auto item = std::make_shared<ScopeItem>();
    p.ReadParcelable(item);
    items.push_back(std::move(item));
  });
  return true;
}

bool ZpScopeService::InvokeOpenGateway(const std::string& appId) {
  if (!remote_) return false;
  return Exchange(*remote_, kInvokeOpenGateway, [&](ZParcel& p) { p.WriteString(1, appId); },
                  tarn::zbrf::kFlagOneWay) != nullptr;
}

}  // namespace service

LocalZbrfProxy::LocalZbrfProxy(std::shared_ptr<ZObject> target) : target_(std::move(target)) {}
LocalZbrfProxy::~LocalZbrfProxy() = default;

bool LocalZbrfProxy::Transact(uint32_t code, const std::shared_ptr<ZParcel>& data,
                              const std::shared_ptr<ZParcel>& reply, uint32_t flags) {
  CLOGI("LocalZbrfProxy::Transact", "LocalZObjectProxy Transact");
  if (!target_) return false;
  if (data) data->Rewind();
  bool ok = target_->OnTransact(code, data, reply, flags);
  if (reply) reply->Rewind();
  return ok;
}

#pragma once
// The scope service's protocol on the container's side: the interface, the
// client stub that turns each call into one numbered transaction, the record
// of one scope, and the proxy that drives a service living in this process.
//
// Transactions (request: header, then fields; reply: status word, then fields):
//   1 CheckCertFingerprint  1 appId, 2 packageFingerprint      -> 1 int32 code
//   2 CheckApiPermission    1 appId, 2 permission, 3 scopeUri  -> 1 bool
//   3 CheckPermission       1 appId, 2 permission              -> 1 bool
//   4 SetLastCheckTime      1 appId                            -> none (one-way)
//   5 GetScopeByAppId       1 appId                            -> 1 ScopeItem, repeated
//   6 InvokeOpenGateway     1 appId                            -> none (one-way)
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/zbrf/zobject.h"
#include "platform/zbrf/zparcel.h"
#include "platform/zbrf/zparcelable.h"

namespace service {

enum ScopeTransaction : uint32_t {
  kCheckCertFingerprint = 1,
  kCheckApiPermission = 2,
  kCheckPermission = 3,
  kSetLastCheckTime = 4,
  kGetScopeByAppId = 5,
  kInvokeOpenGateway = 6,
};

class ScopeItem : public tarn::zbrf::ZParcelable {
 public:
  ScopeItem();
  ~ScopeItem() override;
  bool WriteToParcel(tarn::zbrf::ZParcel& parcel) const override;
  bool ReadFromParcel(tarn::zbrf::ZParcel& parcel) override;
  uint32_t Size() const override;

  int32_t id = 0;
  std::string name;
  std::string url;
  std::vector<std::string> permissions;

 private:
  std::shared_ptr<tarn::zbrf::ZParcel> sizer_;  // only asked for encoded sizes
};

// Each operation returns whether the exchange took place; the decision is in
// the out arguments, which a failed exchange leaves as they were.
class IScopeService : public tarn::zbrf::ZObject {
 public:
  virtual bool CheckCertFingerprint(const std::string& appId, const std::string& packageFingerprint,
                                    int32_t& code) = 0;
  virtual bool CheckApiPermission(const std::string& appId, const std::string& permission,
                                  const std::string& scopeUri, bool& allowed) = 0;
  virtual bool CheckPermission(const std::string& appId, const std::string& permission, bool& allowed) = 0;
  virtual bool SetLastCheckTime(const std::string& appId) = 0;
  virtual bool GetScopeByAppId(const std::string& appId, std::vector<std::shared_ptr<ScopeItem>>& items) = 0;
  virtual bool InvokeOpenGateway(const std::string& appId) = 0;
};

class ZpScopeService : public IScopeService {
 public:
  explicit ZpScopeService(std::shared_ptr<tarn::zbrf::ZObject> remote);
  ~ZpScopeService() override;

  // A stub serves nothing.
  bool OnTransact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>& data,
                  const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t flags) override;

  bool CheckCertFingerprint(const std::string& appId, const std::string& packageFingerprint,
                            int32_t& code) override;
  bool CheckApiPermission(const std::string& appId, const std::string& permission, const std::string& scopeUri,
                          bool& allowed) override;
  bool CheckPermission(const std::string& appId, const std::string& permission, bool& allowed) override;
  bool SetLastCheckTime(const std::string& appId) override;
  bool GetScopeByAppId(const std::string& appId, std::vector<std::shared_ptr<ScopeItem>>& items) override;
  bool InvokeOpenGateway(const std::string& appId) override;

 private:
  std::shared_ptr<tarn::zbrf::ZObject> remote_;
};

}  // namespace service

// Lets a service object of this process be driven through the stub: the
// request is handed to its OnTransact directly.
class LocalZbrfProxy : public tarn::zbrf::ZObject {
 public:
  explicit LocalZbrfProxy(std::shared_ptr<tarn::zbrf::ZObject> target);
  ~LocalZbrfProxy() override;
  bool Transact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>& data,
                const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t flags) override;

 private:
  std::shared_ptr<tarn::zbrf::ZObject> target_;
};

#pragma once
// The pipeline's one seam to the subsystems that sit behind it: the kit
// manager, the configuration, the scope service, the event reporter and the
// notify-message builders. The pipeline calls only this; each subsystem's owner
// installs an implementation (usually a subclass of DefaultRequestGates that
// overrides what that subsystem provides) once at start-up, before
// ServerManager::ServerInit, and keeps it alive for the process's life.
//
// DefaultRequestGates is the behaviour while those subsystems are missing:
//   IsInitComplete       true: nothing to wait for
//   Invoke               refuses with 907135001 "API is not supported. "
//   IsTarnCorerequest    false
//   VerifyEnabled        true (caller verification always runs)
//   CheckCertFingerprint 1: no scope service, so every fingerprint is refused
//   SetLastCheckTime     nothing
//   RecordApiCall        nothing
//   GetNotifyMsg / GetUpdateKitResultMsg
//                        the notify template with action and isUserAgree /
//                        updateKitResult set, version and level empty, no kits
// The executable's signature is not part of the seam: RequestInvoke asks
// SignatureVerifyer (platform/security/security.h) directly.
#include <cstdint>
#include <string>

#include "pipeline/Records.h"

class ServerResCallBack;

class RequestGates {
 public:
  virtual ~RequestGates() = default;

  // The installed implementation, or the default one. Cheap: one atomic load.
  static RequestGates& Get();
  // Installs gates for the whole process (not owned); nullptr restores the
  // default. Install before requests arrive: a request already running keeps
  // using what it started with only as long as the old object stays alive.
  static void Install(RequestGates* gates);

  // KitManagerApi: the "init complete" flag, polled while a request waits.
  virtual bool IsInitComplete() = 0;
  // KitManagerApi::Invoke: leaves status at "0" when it has taken the request
  // (the answer may already have gone and callback may be deleted); otherwise
  // writes the failure to status and must not have answered the client. The
  // records are the caller's own, which it doesn't read afterwards: the kit
  // manager works on them (it lower-cases the api name) instead of copies.
  virtual void Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* callback,
                      ResponseStatus& status) = 0;
  // KitManagerApi::IsTarnCorerequest: a call from the platform's own executables.
  virtual bool IsTarnCorerequest(uint32_t processId, const RequestHeader& header) = 0;
  // ConfigManager::verifyEnabled.
  virtual bool VerifyEnabled() = 0;
  // ScopeUtil::CheckCertFingerprint: 0 verified (enter the whitelist), 1000
  // verified (don't), 2000 failed with the network down, other values failed.
  virtual int CheckCertFingerprint(const std::string& clientId, uint32_t processId,
                                   const std::string& transactionId, const std::string& pkgName,
                                   const std::string& apiName) = 0;
  // ScopeProxy::SetLastCheckTime.
  virtual void SetLastCheckTime(const std::string& clientId) = 0;
  // EvManager::RecordApiCall with "req" or "res".
  virtual void RecordApiCall(ServerResCallBack* callback, const std::string& direction) = 0;
  // ConnectManager's notify builders.
  virtual void GetNotifyMsg(const std::string& action, int isUserAgree, std::string& out) = 0;
  virtual void GetUpdateKitResultMsg(const std::string& result, std::string& out) = 0;
};

class DefaultRequestGates : public RequestGates {
 public:
  bool IsInitComplete() override;
  void Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* callback,
              ResponseStatus& status) override;
  bool IsTarnCorerequest(uint32_t processId, const RequestHeader& header) override;
  bool VerifyEnabled() override;
  int CheckCertFingerprint(const std::string& clientId, uint32_t processId,
                           const std::string& transactionId, const std::string& pkgName,
                           const std::string& apiName) override;
  void SetLastCheckTime(const std::string& clientId) override;
  void RecordApiCall(ServerResCallBack* callback, const std::string& direction) override;
  void GetNotifyMsg(const std::string& action, int isUserAgree, std::string& out) override;
  void GetUpdateKitResultMsg(const std::string& result, std::string& out) override;
};

#pragma once
// The request pipeline's gates as this process has them: each subsystem that
// is there answers its part; the rest keep DefaultRequestGates' behaviour.
// Installed once in main, before the IPC endpoint opens, and never freed.
//
//   access control (AccessRequestGates): caller verification, whitelist note,
//                                         core-process test
//   kit manager: IsInitComplete, Invoke
//   configuration: VerifyEnabled
//   event reporter: RecordApiCall
//   update: the notify builders
#include "access/access_request_gates.h"

class ContainerRequestGates : public AccessRequestGates {
 public:
  // KitManagerApi's "init complete".
  bool IsInitComplete() override;
  // KitManagerApi::Invoke.
  void Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* callback,
              ResponseStatus& status) override;
  // ConfigManager::verifyEnabled.
  bool VerifyEnabled() override;
  // EvManager::RecordApiCall.
  void RecordApiCall(ServerResCallBack* callback, const std::string& direction) override;
  // The update notify messages, with the configuration's version, level and kits.
  void GetNotifyMsg(const std::string& action, int isUserAgree, std::string& out) override;
  void GetUpdateKitResultMsg(const std::string& result, std::string& out) override;

  // Installs the process's gates (once).
  static void InstallForProcess();
};

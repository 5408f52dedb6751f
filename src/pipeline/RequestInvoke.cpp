#include "pipeline/RequestInvoke.h"

#include <string>

#include "pipeline/ConnectManager.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/ipc/signature_manager.h"
#include "platform/log/tarn_log.h"
#include "platform/os/clock.h"
#include "platform/os/last_error.h"
#include "platform/security/security.h"

void RequestInvoke::Excute(ServerResCallBack* callback) {
  // The callback may be gone as soon as the kit manager has taken the request.
  const std::string msgIdentify = callback->msgIdentify;
  try {
    CLOGI("RequestInvoke::Excute", "RequestInvoke.excute begin. msgIdentify = " << msgIdentify);
    ResponseStatus status;
    if (!IsInitComplite(callback, status)) return;

    ConnectManager::ParsedHeader parsed;
    ConvertedRequest request = ConnectManager::ConvertRequest(*callback, status, parsed);
    if (status.status_code != "0") {
      CLOGE("RequestInvoke::Excute", "req message parse error. msgIdentify = " << msgIdentify);
      callback->ExcuteError(status);
      return;
    }
    CLOGI("RequestInvoke::Excute", "RequestInvoke.excute. reqHeader = "
                                       << request.header << " msgIdentify = " << msgIdentify);

    const std::string headerText = request.header;
    RequestHeader header = ConnectManager::GetReqHeader(headerText, parsed, status);
    if (status.status_code != "0") {
      CLOGE("RequestInvoke::Excute", "req message parse error. msgIdentify = " << msgIdentify);
      callback->ExcuteError(status);
      return;
    }
    if (!VerifyProcess(callback, header, status)) return;

    callback->reqHeader = ConnectManager::GetResHeader(header, status);
    callback->header = header;
    RequestGates& gates = RequestGates::Get();
    gates.RecordApiCall(callback, "req");
    gates.Invoke(header, request, callback, status);
    if (status.status_code != "0") {
      CLOGE("RequestInvoke::Excute", "Invoke failed. status_code = "
                                         << status.status_code << " msgIdentify = " << msgIdentify);
      callback->ExcuteError(status);
      return;
    }
  } catch (...) {
    // Deliberately no answer: the caller runs into its own time-out.
    CLOGE("RequestInvoke::Excute", "RequestInvoke Excute failed.errmsg = " << tarn::os::GetLastError());
  }
  CLOGI("RequestInvoke::Excute", "RequestInvoke.excute end. ");
}

bool RequestInvoke::IsInitComplite(ServerResCallBack* callback, ResponseStatus& status) {
  RequestGates& gates = RequestGates::Get();
  if (gates.IsInitComplete()) return true;
  CLOGI("RequestInvoke::IsInitComplite", "TarnCore is not init completely. msgIdentify = "
                                             << callback->msgIdentify << " Wait it.");
  for (int i = 0; i < 17; ++i) {
    tarn::os::Sleep(50);
    if (gates.IsInitComplete()) return true;
  }
  CLOGE("RequestInvoke::IsInitComplite",
        "TarnCore still not init complete after 1s. msgIdentify = " << callback->msgIdentify);
  SetResponseStatus(status, TarnStatus::kNotInited);
  callback->ExcuteError(status);
  return false;
}

bool RequestInvoke::VerifyProcess(ServerResCallBack* callback, RequestHeader& header,
                                  ResponseStatus& status) {
  if (!RequestGates::Get().VerifyEnabled()) return true;
  const uint32_t pid = callback->callerPid;
  SignatureManager* whitelist = SignatureManager::GetInstance();
  int found = whitelist->FindSignatured(pid, header.client_id);
  if (found == 0) {
    RequestGates::Get().SetLastCheckTime(header.client_id);
    CLOGI("RequestInvoke::VerifyProcess",
          "Already in whitelist. client_id: " << header.client_id << " Pid: " << pid);
    return true;
  }
  if (found == 1) {
    whitelist->RemoveSignatureWhiteList(pid);
    CLOGE("RequestInvoke::VerifyProcess",
          "Wrong clientId: " << header.client_id << " Pid: " << pid);
  }
  if (!VerifySignatured(callback, status)) return false;
  return CheckCertFingerprint(callback, header, status);
}

bool RequestInvoke::VerifySignatured(ServerResCallBack* callback, ResponseStatus& status) {
  if (SignatureVerifyer::GetInstance()->Verify(callback->callerPid) == 0) return true;
  CLOGE("RequestInvoke::VerifySignatured",
        "SignatureVerifyer failed. msgIdentify = " << callback->msgIdentify);
  SetResponseStatus(status, TarnStatus::kApiIllegal);
  callback->ExcuteError(status);
  return false;
}

bool RequestInvoke::CheckCertFingerprint(ServerResCallBack* callback, RequestHeader& header,
                                         ResponseStatus& status) {
  RequestGates& gates = RequestGates::Get();
  const uint32_t pid = callback->callerPid;
  if (gates.IsTarnCorerequest(pid, header)) {
    callback->isTarnCoreRequest = true;
  } else {
    int ret = gates.CheckCertFingerprint(header.client_id, pid, header.transaction_id,
                                         header.pkg_name, header.api_name);
    if (ret == 1000) {
      CLOGI("RequestInvoke::CheckCertFingerprint",
            "Verify success not add whitelist. clientId:" << header.client_id << " Pid:" << pid);
      return true;
    }
    if (ret != 0) {
      CLOGE("RequestInvoke::CheckCertFingerprint", "Verify fail client_id:" << header.client_id
                                                       << " Pid:" << pid << " ret:" << ret);
      SetResponseStatus(status, ret == 2000 ? TarnStatus::kApiIllegalNetworkDown
                                            : TarnStatus::kApiIllegal);
      callback->ExcuteError(status);
      return false;
    }
  }
  SignatureManager::GetInstance()->AddSignatureWhiteList(pid, header.client_id);
  CLOGI("RequestInvoke::CheckCertFingerprint",
        "Verify success. client_id: " << header.client_id << " Pid: " << pid);
  return true;
}

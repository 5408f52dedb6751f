#include "pipeline/ServerResCallBack.h"

#include <cstdlib>
#include <cstring>

#include "pipeline/ConnectManager.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerManager.h"
#include "platform/log/tarn_log.h"
#include "platform/os/clock.h"

ServerResCallBack::ServerResCallBack(const TagIPCMessageItem& msgItem, uint32_t pid,
                                     const RequestHeader& requestHeader,
                                     const ResponseStatus& responseStatus)
    : ownHeader_(requestHeader), ownStatus_(responseStatus) {
  callerPid = pid;
  item = &msgItem;
  const char* text = msgItem.body ? msgItem.body : "";
  requestText = text;
  requestTextCopy = text;
  msgIdentify = std::to_string(msgItem.syncMessageId);
  startTicks = tarn::os::GetTickCount();
}

void ServerResCallBack::Excute(std::string& response) {
  CLOGI("ServerResCallBack::Excute",
        "ServerResCallBack.Excute begin. reqHeader = " << reqHeader << " msgIdentify = "
                                                       << msgIdentify);
  ResponseStatus local;
  std::string text;
  if (response.find("\"header\"") != std::string::npos) {
    text = response;  // a complete message: sent as it stands
  } else {
    text = ConnectManager::GetResMsg(reqHeader, response);
  }
  if (local.status_code == "0") {
    ServerManager::GetInstance().SendIpcMessage(text, std::atoi(msgIdentify.c_str()));
    elapsedTicks = tarn::os::GetTickCount() - startTicks;
    RequestGates::Get().RecordApiCall(this, "res");
    CLOGI("ServerResCallBack::Excute", "ServerResCallBack.Excute end. msgIdentify = " << msgIdentify);
    ServerManager::GetInstance().RemoveCallBack(this);
  } else {
    CLOGE("ServerResCallBack::Excute", "Invoke failed. status_code = " << local.status_code
                                           << " msgIdentify = " << msgIdentify);
    ExcuteError(local);
  }
}

void ServerResCallBack::ExcuteError(ResponseStatus& failure) {
  CLOGI("ServerResCallBack::ExcuteError", "ServerResCallBack.ExcuteError begin. responseStatus =  "
                                              << failure.error_code << " msgIdentify = "
                                              << msgIdentify);
  std::string text;
  ConnectManager::GetResErrorMsg(failure, text);
  ServerManager::GetInstance().SendIpcMessage(text, std::atoi(msgIdentify.c_str()));
  if (&failure != &status) status = failure;
  elapsedTicks = tarn::os::GetTickCount() - startTicks;
  if (!header.api_name.empty()) RequestGates::Get().RecordApiCall(this, "res");
  CLOGI("ServerResCallBack::ExcuteError",
        "ServerResCallBack.ExcuteError end. msgIdentify = " << msgIdentify);
  ServerManager::GetInstance().RemoveCallBack(this);
}

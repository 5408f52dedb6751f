// The handlers through which clients and the update UI take part in a
// self-update. The update state itself belongs to the store manager.
#include <json/value.h>

#include "config/ConfigManager.h"
#include "framework/FrameworkHandlers.h"
#include "framework/FrameworkServices.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"

using tarn::framework::FrameworkServices;
using tarn::framework::Services;

namespace {

// Parses the body and reads one string member, tested first by its quoted
// name in the raw text. A value that is not a string throws Json::LogicError,
// which the kit manager's catch ends, unless `convert` takes any type as text.
void ReadBodyField(const char* where, const ConvertedRequest& request, const char* name,
                   bool convert, std::string& out) {
  const std::string& body = request.body;
  Json::Value root;
  if (!ConnectManager::Parse(body.data(), body.data() + body.size(), root)) {
    CLOGE(where, "convertReqMess data format error.");
    return;
  }
  if (body.find(std::string("\"") + name + "\"") == std::string::npos) {
    CLOGE(where, "convertReqMess data format error.");
    return;
  }
  const Json::Value& value = root[name];
  if (!convert) {
    out = value.asCString();
  } else if (value.isConvertibleTo(Json::stringValue)) {
    out = value.asString();
  } else {
    out = ConnectManager::Render(value);  // an array or object, as its text
  }
}

}  // namespace

void UpdateKitReqHandler::Excute(const std::string&, ServerResCallBack*, const ConvertedRequest& request,
                                 ResponseStatus& status) {
  Services().StartSelfUpdate(status, request.sdk_version);
}

void ForceUpdateKitReqHandler::GetJsonFieldForReq(const ConvertedRequest& request, std::string& kitName) {
  ReadBodyField("ForceUpdateKitReqHandler::GetJsonFieldForReq", request, "reqKitName", true, kitName);
}

void ForceUpdateKitReqHandler::Excute(const std::string&, ServerResCallBack* callback,
                                      const ConvertedRequest& request, ResponseStatus& status) {
  std::string kitName;
  GetJsonFieldForReq(request, kitName);
  std::string forceUpdate;
  if (!kitName.empty()) {
    ConfigManager::GetInstance().GetForceUpdateFlag(kitName, forceUpdate);
  } else {
    CLOGE("ForceUpdateKitReqHandler::Excute", "message error, kitName is null.");
    forceUpdate = "0";
  }
  // "2" is only said when a newer version really exists; the check asks the
  // update library on this thread.
  if (forceUpdate == "2" && !Services().HasNewVersion()) {
    forceUpdate = "0";
    CLOGE("ForceUpdateKitReqHandler::Excute", "forceUpdate is 2, but there is not new version.");
  }
  std::string text;
  ConnectManager::GetResErrorMsgForceUpdate(status, text, forceUpdate);
  CLOGI("ForceUpdateKitReqHandler::Excute",
        "GetForceUpdateFlag kitName = " << kitName << " forceUpdateMsg = " << forceUpdate);
  callback->Excute(text);
}

void UpdateKitResultReqHandler::GetJsonFieldForResutCode(const ConvertedRequest& request,
                                                         std::string& resultCode) {
  ReadBodyField("UpdateKitResultReqHandler::GetJsonFieldForResutCode", request, "resultCode", false,
                resultCode);
}

void UpdateKitResultReqHandler::GetJsonFieldForUpdateKitName(const ConvertedRequest& request,
                                                             std::string& kitName) {
  ReadBodyField("UpdateKitResultReqHandler::GetJsonFieldForUpdateKitName", request, "updateKitName",
                false, kitName);
}

void UpdateKitResultReqHandler::Excute(const std::string&, ServerResCallBack*,
                                       const ConvertedRequest& request, ResponseStatus& status) {
  static constexpr const char* kWhere = "UpdateKitResultReqHandler::Excute";
  CLOGI(kWhere, "UpdateKitResultReqHandler.Excute start.");
  FrameworkServices& services = Services();
  if (request.body.empty()) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    services.CompleteUpdate();
    CLOGE(kWhere, "convertReqMess data format error.");
    return;
  }
  std::string resultCode;
  GetJsonFieldForResutCode(request, resultCode);
  if (resultCode.empty()) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    services.CompleteUpdate();
    CLOGE(kWhere, "convertReqMess data resultCode format error.");
    return;
  }
  // Both user decisions are logged at error level, as they always were.
  if (resultCode == "907135010") {
    SetResponseStatus(status, TarnStatus::kUpdateInvokeSuccess);
    services.SendUserConfirmBroadcast(2);
    services.CompleteUpdate();
    CLOGE(kWhere, "user can not agree update.");
    return;
  }
  if (resultCode == "907135014") {
    // The update goes on: it ends with the UI's next report.
    SetResponseStatus(status, TarnStatus::kUpdateInvokeSuccess);
    services.SendUserConfirmBroadcast(1);
    services.ShowScrollAndUpdate();
    CLOGE(kWhere, "user agree update.");
    return;
  }
  if (resultCode == "907135007") {
    CLOGE(kWhere, "Upgrade failed, Send update failed broadcast message.");
    services.SendUpdateFailedBroadcast(resultCode);
  }
  std::string kitName;
  GetJsonFieldForUpdateKitName(request, kitName);
  if (!kitName.empty()) {
    if (resultCode == "0") services.InitKitsForUpdate();
    services.SendServiceStartBroadcast();
    services.CompleteUpdate();
    SetResponseStatus(status, TarnStatus::kUpdateInvokeSuccess);
    CLOGI(kWhere, "UpdateKitResultReqHandler.Excute end.");
    return;
  }
  SetResponseStatus(status, TarnStatus::kDataFormatError);
  services.CompleteUpdate();
  // Names the wrong field; the line is kept as it has always read.
  CLOGE(kWhere, "convertReqMess data resultCode format error.");
}

void ServiceDialogReqHandler::GetJsonFieldForDialogType(const ConvertedRequest& request,
                                                        std::string& dialogType) {
  ReadBodyField("ServiceDialogReqHandler::GetJsonFieldForDialogType", request, "dialogType", false,
                dialogType);
}

void ServiceDialogReqHandler::Excute(const std::string&, ServerResCallBack* callback,
                                     const ConvertedRequest& request, ResponseStatus& status) {
  static constexpr const char* kWhere = "ServiceDialogReqHandler::Excute";
  // The start and end lines name the result handler; they always have.
  CLOGI(kWhere, "UpdateKitResultReqHandler.Excute start.");
  if (request.body.empty()) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    CLOGE(kWhere, "convertReqMess data format error.");
    return;
  }
  std::string dialogType;
  GetJsonFieldForDialogType(request, dialogType);
  if (dialogType.empty()) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    CLOGE(kWhere, "convertReqMess data dialogType format error.");
    return;
  }
  std::string text;
  ConnectManager::GetResErrorMsg(status, text);
  callback->Excute(text);
  CLOGI(kWhere, "UpdateKitResultReqHandler.Excute end.");
}

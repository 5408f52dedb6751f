// Questions about what a client may do, answered by the scope service. A
// malformed question is not an error to the client: it gets a success header
// and "not granted", and only the log says why.
#include <map>

#include <json/value.h>

#include "config/ConfigManager.h"
#include "framework/FrameworkHandlers.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"

namespace {

bool ParseBody(const char* where, const ConvertedRequest& request, Json::Value& root) {
  const std::string& body = request.body;
  if (!ConnectManager::Parse(body.data(), body.data() + body.size(), root)) {
    CLOGE(where, "convertReqMess data format error.");
    return false;
  }
  return true;
}

// Presence is tested in the raw text only: a member of that name nested deeper
// passes, and the top level's value then reads empty.
bool Mentions(const std::string& body, const char* quotedName) {
  return body.find(quotedName) != std::string::npos;
}

}  // namespace

void CheckPermissionReqHandler::GetJsonFieldForReq(const ConvertedRequest& request, std::string& permission,
                                                   std::string& clientId) {
  static constexpr const char* kWhere = "CheckPermissionReqHandler::GetJsonFieldForReq";
  Json::Value root;
  if (!ParseBody(kWhere, request, root)) return;
  if (!Mentions(request.body, "\"reqPermission\"")) {
    CLOGE(kWhere, "convertReqMess data format reqPermission error.");
    return;
  }
  if (!Mentions(request.body, "\"reqClinetid\"")) {
    CLOGE(kWhere, "convertReqMess data format reqClinetid error.");
    return;
  }
  // A member of the wrong JSON type (or a root that isn't an object) makes
  // the library throw: the question is malformed like any other.
  try {
    permission = root["reqPermission"].asString();
    clientId = root["reqClinetid"].asString();
  } catch (const Json::LogicError&) {
    CLOGE(kWhere, "convertReqMess data format error.");
    permission.clear();
    clientId.clear();
  }
}

void CheckPermissionReqHandler::Excute(const std::string&, ServerResCallBack* callback,
                                       const ConvertedRequest& request, ResponseStatus& status) {
  static constexpr const char* kWhere = "CheckPermissionReqHandler::Excute";
  std::string permission;
  std::string clientId;
  GetJsonFieldForReq(request, permission, clientId);
  std::string result = "0";
  if (!permission.empty() && !clientId.empty()) {
    result = ConfigManager::GetInstance().CheckScopePermission(permission, clientId) ? "1" : "0";
  } else {
    CLOGE(kWhere, "message error, permission or clientid is null.");
  }
  std::string text;
  ConnectManager::GetResErrorMsgCheckPermission(status, text, result);
  CLOGD(kWhere, "Check permission ret = " << permission << " checkPermissionMsg = " << result);
  callback->Excute(text);
}

void CheckPermissionListReqHandler::GetJsonFieldForReq(const ConvertedRequest& request,
                                                       std::vector<std::string>& permissionList,
                                                       std::string& clientId) {
  static constexpr const char* kWhere = "CheckPermissionListReqHandler::GetJsonFieldForReq";
  Json::Value root;
  if (!ParseBody(kWhere, request, root)) return;
  if (!Mentions(request.body, "\"reqClinetid\"")) {
    CLOGE(kWhere, "convertReqMess data format reqClinetid error.");
    return;
  }
  try {
    clientId = root["reqClinetid"].asString();
    // size() is the element count of an array, the member count of an object,
    // and 0 for anything else.
    const Json::Value& permissions = root["permissions"];
    for (Json::ArrayIndex i = 0; i < permissions.size(); ++i) {
      permissionList.push_back(permissions[i]["permission"].asString());
    }
  } catch (const Json::LogicError&) {
    // A member of the wrong JSON type: malformed, so nothing is checked.
    CLOGE(kWhere, "convertReqMess data format error.");
    permissionList.clear();
    clientId.clear();
  }
}

void CheckPermissionListReqHandler::Excute(const std::string&, ServerResCallBack* callback,
                                           const ConvertedRequest& request, ResponseStatus& status) {
  static constexpr const char* kWhere = "CheckPermissionListReqHandler::Excute";
  std::vector<std::string> permissionList;
  std::string clientId;
  GetJsonFieldForReq(request, permissionList, clientId);
  // A permission asked twice is checked twice; both elements show the later answer.
  std::map<std::string, std::string> results;
  if (permissionList.empty() || clientId.empty()) {
    CLOGE(kWhere, "message error, permissionList size is 0 or clientid is null. clientid=" << clientId);
  } else {
    for (const std::string& permission : permissionList) {
      results[permission] =
          ConfigManager::GetInstance().CheckScopePermission(permission, clientId) ? "1" : "0";
    }
  }
  std::string text;
  ConnectManager::GetResErrorMsgCheckPermissionList(status, text, permissionList, results);
  callback->Excute(text);
}

void VerifyMessageReqHandler::Excute(const std::string&, ServerResCallBack* callback, const ConvertedRequest&,
                                     ResponseStatus&) {
  // Reaching here means every gate of the request passed; that is the answer.
  std::string text = tarn::framework::ReturnCodeText(true);
  callback->Excute(text);
}

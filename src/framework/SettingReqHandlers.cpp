// Routing of a service name to its url, and the four switches a client may
// store in the platform's registry key.
#include <json/value.h>
#include <json/writer.h>

#include "framework/FrameworkHandlers.h"
#include "framework/FrameworkServices.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"
#include "platform/os/registry.h"

namespace {

// Both settings-style bodies are an object with two string members; a body
// that is not JSON and one whose members are not strings log their own lines.
bool ReadTwoStrings(const ConvertedRequest& request, const char* first, const char* second,
                    const char* where, const char* typeError, std::string& a, std::string& b) {
  const std::string& body = request.body;
  Json::Value root;
  if (!ConnectManager::Parse(body.data(), body.data() + body.size(), root)) {
    CLOGE(where, "convertReqMess reg data format error.");
    return false;
  }
  if (!root[first].isString() || !root[second].isString()) {
    CLOGE(where, typeError);
    return false;
  }
  a = root[first].asString();
  b = root[second].asString();
  return true;
}

}  // namespace

namespace tarn::framework {

std::string ReturnCodeText(bool returnCode) {
  Json::Value answer(Json::objectValue);
  answer["returnCode"] = returnCode;
  return answer.toStyledString();
}

}  // namespace tarn::framework

void EdrReqHandler::GetJsonFieldForEdrReq(const ConvertedRequest& request, std::string& serviceName,
                                          std::string& key) {
  static constexpr const char* kWhere = "EdrReqHandler::GetJsonFieldForEdrReq";
  const std::string& body = request.body;
  Json::Value root;
  if (!ConnectManager::Parse(body.data(), body.data() + body.size(), root) ||
      body.find("\"serviceName\"") == std::string::npos || body.find("\"key\"") == std::string::npos) {
    CLOGE(kWhere, "convertReqMess data format error.");
    return;
  }
  serviceName = root["serviceName"].asString();
  key = root["key"].asString();
}

void EdrReqHandler::Excute(const std::string&, ServerResCallBack* callback, const ConvertedRequest& request,
                           ResponseStatus& status) {
  static constexpr const char* kWhere = "EdrReqHandler::Excute";
  CLOGI(kWhere, "EDRReqHandler.Excute start.");
  if (request.body.empty()) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    CLOGE(kWhere, "convertReqMess data format error.");
    return;
  }
  std::string serviceName;
  std::string key;
  GetJsonFieldForEdrReq(request, serviceName, key);
  CLOGI(kWhere, "EDRReqHandler before serviceName: " << serviceName << " key: " << key);
  if (serviceName.empty() || key.empty()) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    CLOGE(kWhere, "convertReqMess data EdrReqBody format error.");
    return;
  }
  std::string url;
  if (!tarn::framework::Services().GetServiceUrl(serviceName, url, key)) {
    SetResponseStatus(status, TarnStatus::kEdrQueryFailed);
    // The same sentence as a format error; the line has always read so.
    CLOGE(kWhere, "convertReqMess data EdrReqBody format error.");
    return;
  }
  CLOGI(kWhere, "EDRReqHandler after serviceName: " << serviceName << " url: " << url << " key: " << key);
  std::string text;
  ConnectManager::GetResErrorMsgEdr(status, text, serviceName, url, key);
  callback->Excute(text);
  CLOGI(kWhere, "EDRReqHandler.Excute end.");
}

bool RegSettingReqHandler::GetJsonFieldForReq(const ConvertedRequest& request, std::string& key,
                                              std::string& value) {
  return ReadTwoStrings(request, "key", "value", "RegSettingReqHandler::GetJsonFieldForReq",
                        "convertReqMess data format reg key or vlaue error.", key, value);
}

void RegSettingReqHandler::Excute(const std::string&, ServerResCallBack* callback,
                                  const ConvertedRequest& request, ResponseStatus& status) {
  static constexpr const char* kWhere = "RegSettingReqHandler::Excute";
  std::string key;
  std::string value;
  if (!GetJsonFieldForReq(request, key, value)) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    CLOGE(kWhere, "reg setting handler data resultCode format error.");
    return;
  }
  // A client may touch these four values and no other.
  if (key != "AutoUpgrade" && key != "ShareAnalysis" && key != "PrivacyNotice" && key != "PrivacyAgree") {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    CLOGE(kWhere, "reg setting handler reg key is invalid");
    return;
  }
  tarn::os::RegistryStore& registry = tarn::os::Registry();
  const std::string privacyVersion = tarn::framework::kPrivacyVersion;
  if (key == "PrivacyNotice") {
    // Answering the first notice is also the agreement at the current version.
    bool agreed = registry.OpenKey(tarn::os::kVtidKey) == tarn::os::kRegSuccess &&
                  registry.SetValue(tarn::os::kVtidKey, "PrivacyAgree", privacyVersion) ==
                      tarn::os::kRegSuccess;
    if (agreed) {
      CLOGI(kWhere, "Success Set PrivacyAgree with value=" << privacyVersion);
    } else {
      CLOGI(kWhere, "Failed to Set PrivacyAgree with value=" << privacyVersion);
    }
  }
  // No other version can be agreed to from outside.
  if (key == "PrivacyAgree") value = privacyVersion;
  CLOGI(kWhere, "Set reg key = " << key << " ,value = " << value);
  bool written = registry.OpenKey(tarn::os::kVtidKey) == tarn::os::kRegSuccess &&
                 registry.SetValue(tarn::os::kVtidKey, key, value) == tarn::os::kRegSuccess;
  std::string text = tarn::framework::ReturnCodeText(written);
  CLOGI(kWhere, text);
  callback->Excute(text);
}

void EvReportHandler::Excute(const std::string&, ServerResCallBack* callback, const ConvertedRequest& request,
                             ResponseStatus& status) {
  tarn::framework::Services().QueueClientReport(request.body);
  std::string text;
  ConnectManager::GetResErrorMsg(status, text);
  callback->Excute(text);
}

bool NoticeEvReportReqHandler::GetJsonFieldForReq(const ConvertedRequest& request, std::string& type,
                                                  std::string& data) {
  return ReadTwoStrings(request, "type", "data", "NoticeEvReportReqHandler::GetJsonFieldForReq",
                        "convertReqMess data format error.", type, data);
}

void NoticeEvReportReqHandler::Excute(const std::string&, ServerResCallBack* callback,
                                      const ConvertedRequest& request, ResponseStatus& status) {
  static constexpr const char* kWhere = "NoticeEvReportReqHandler::Excute";
  std::string type;
  std::string data;
  if (!GetJsonFieldForReq(request, type, data)) {
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    CLOGE(kWhere, "notice ev report handler data resultCode format error.");
    return;
  }
  if (type == "TARNCORE_NOTICE_UI" && !data.empty()) {
    // The record goes to the file whether or not sharing is on.
    tarn::framework::Services().ReportToFile(data);
    std::string text = tarn::framework::ReturnCodeText(true);
    CLOGI(kWhere, text);
    callback->Excute(text);
    return;
  }
  SetResponseStatus(status, TarnStatus::kDataFormatError);
  CLOGE(kWhere, "notice ev report handler type or data is invalid");
}

#include <json/value.h>

#include "analytics/EvReportInfo.h"
#include "pipeline/ConnectManager.h"

void GetEvReportText(const std::shared_ptr<EvReportInfo>& info, std::string& out) {
  static constexpr const char kTemplate[] = "{\"body\":{}}";
  Json::Value root;
  if (!info || !ConnectManager::Parse(kTemplate, kTemplate + sizeof(kTemplate) - 1, root)) return;
  const EvReportApiInfo& api = info->api;
  Json::Value element(Json::objectValue);
  element["event_name"] = info->eventName;
  element["reportType"] = info->reportType;
  element["isImmediately"] = info->isImmediately;
  Json::Value& data = element["event_data"];
  data["version"] = api.version;
  data["service"] = api.service;
  data["apiName"] = api.apiName;
  data["appid"] = api.appid;
  data["package"] = api.package;
  data["baseVersion"] = api.baseVersion;
  data["transId"] = api.transId;
  data["kitSdkVersion"] = api.kitSdkVersion;
  data["apiLevel"] = api.apiLevel;
  data["direction"] = api.direction;
  data["callTime"] = api.callTime;
  data["statusCode"] = api.statusCode;
  data["result"] = api.result;
  root["body"]["EVReports"].append(element);
  out = ConnectManager::Render(root["body"]);
}

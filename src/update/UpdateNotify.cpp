#include "update/UpdateNotify.h"

#include <memory>

#include <json/json.h>

#include "config/ConfigManager.h"
#include "pipeline/ConnectManager.h"

namespace tarn::update {
namespace {

// The version in the template never leaves: it is always overwritten.
constexpr char kNotifyTemplate[] = R"({"header":{"action":""},"notifyMsg":{"version": "5.1.0.300"}})";

bool ParseTemplate(Json::Value& root) {
  return ConnectManager::Parse(kNotifyTemplate, kNotifyTemplate + sizeof(kNotifyTemplate) - 1, root);
}

void SetVersionAndLevel(Json::Value& notify) {
  const auto& remote = ConfigManager::GetInstance().remoteConfig;
  notify["version"] = remote.version;
  notify["level"] = remote.level;
}

// No list: no member. An empty list: "". Otherwise one element per configured
// sub-kit, and no member when there are none.
void SetKits(Json::Value& notify) {
  auto& config = ConfigManager::GetInstance();
  const std::shared_ptr<PackageInfoList> packages = config.remoteConfig.packageInfoList;
  if (!packages) return;
  if (packages->empty()) {
    notify["kits"] = "";
    return;
  }
  SubKitConfigList subKits;
  config.GetAllSubKitConfig(subKits);
  if (subKits.empty()) return;
  Json::Value kits(Json::arrayValue);
  for (const auto& subKit : subKits) {
    if (!subKit) continue;
    Json::Value kit;
    kit["kitName"] = subKit->kitName;
    kit["kitVersion"] = subKit->version;
    kit["apiLevel"] = subKit->apiLevel;
    kits.append(kit);
  }
  notify["kits"] = kits;
}

}  // namespace

void GetNotifyMsg(const std::string& action, int isUserAgree, std::string& out) {
  Json::Value root;
  if (!ParseTemplate(root)) return;
  root["header"]["action"] = action;
  Json::Value& notify = root["notifyMsg"];
  notify["isUserAgree"] = std::to_string(isUserAgree);
  SetVersionAndLevel(notify);
  SetKits(notify);
  out = ConnectManager::Render(root);
}

void GetUpdateKitResultMsg(const std::string& result, std::string& out) {
  Json::Value root;
  if (!ParseTemplate(root)) return;
  root["header"]["action"] = "com.vantrel.tarn.updateKitResult";
  Json::Value& notify = root["notifyMsg"];
  notify["updateKitResult"] = result;
  SetVersionAndLevel(notify);
  out = ConnectManager::Render(root);
}

}  // namespace tarn::update

#include "notice_report.h"

#include <json/value.h>
#include <json/writer.h>

#include <ctime>

#include "notice/NoticeManager.h"
#include "platform/log/tarn_log.h"
#include "platform/os/registry.h"

namespace tarn::notice {

namespace {

#define NLOG(level, where, ...) TARN_LOG(::tarn::log::Level::level, "notice", where, __VA_ARGS__)

constexpr const char* kPackage = "TarnCoreNotice";

std::string Now() {
  const std::time_t now = std::time(nullptr);
  std::tm local {};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
  return text;
}

struct Setting {
  std::string key;
  std::string value;
};

// What the container's settings request would store, written here when no
// container is there to take it; the same rules for the privacy values.
bool WriteDirectly(const Setting& setting) {
  auto& registry = tarn::os::Registry();
  const std::string agreed = kCurrentPrivacyVersion;
  if (setting.key == "PrivacyNotice" &&
      registry.SetValue(tarn::os::kVtidKey, "PrivacyAgree", agreed) != tarn::os::kRegSuccess) {
    return false;
  }
  const std::string value = setting.key == "PrivacyAgree" ? agreed : setting.value;
  return registry.SetValue(tarn::os::kVtidKey, setting.key, value) == tarn::os::kRegSuccess;
}

bool Record(const Setting& setting, int waitMs) {
  Json::Value body(Json::objectValue);
  body["key"] = setting.key;
  body["value"] = setting.value;
  const auto answer = tools::SendFrameworkRequest("Framework.SetRegValue", body, kPackage, waitMs);
  if (answer.clientCode == 0) {
    // The handler's own answer carries returnCode under the request's header;
    // a refusal comes as a status answer without it.
    const bool stored = answer.hasReturnCode ? answer.returnCode : answer.statusCode == "0";
    NLOG(Info, "NoticeSession::Record",
         "SetRegValue key = " << setting.key << " answer = " << answer.statusCode << " stored = " << stored);
    return stored;
  }
  const bool stored = WriteDirectly(setting);
  NLOG(Warn, "NoticeSession::Record",
       "container not reached, code " << answer.clientCode << "; wrote " << setting.key << " directly: " << stored);
  return stored;
}

// One record of the notice's use, in the form the container's reporter sends.
void ReportEvent(const char* eventName, const char* key, const std::string& value, const std::string& mode) {
  Json::Value data(Json::objectValue);
  data["tarncore_ui_name"] = kPackage;
  data["oper_Content"] = mode;
  data[key] = value;
  Json::Value event(Json::objectValue);
  event["event_name"] = eventName;
  event["reportType"] = "0";
  event["isImmediately"] = "0";
  event["event_data"] = data;
  Json::Value report(Json::objectValue);
  report["EVReports"].append(event);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  Json::Value body(Json::objectValue);
  body["type"] = "TARNCORE_NOTICE_UI";
  body["data"] = Json::writeString(writer, report);
  // One try: a record the container can't take is not worth holding the notice up.
  const auto answer = tools::SendFrameworkRequest("Framework.NoticeEvReport", body, kPackage, 0);
  NLOG(Info, "NoticeSession::ReportEvent", eventName << " client code = " << answer.clientCode);
}

}  // namespace

NoticeSession::NoticeSession(std::string mode) : mode_(std::move(mode)), openTime_(Now()) {}

bool NoticeSession::SharingOn() {
  std::string value;
  ReadVtidRegistryValue("ShareAnalysis", value);
  return value != "false";
}

void NoticeSession::Operate(const char* control) { operations_.push_back({control, Now()}); }

bool NoticeSession::Finish(tools::Choice choice, std::optional<bool> sharing, int waitMs) {
  bool recorded = false;
  if (choice == tools::Choice::kAccept) {
    // The container stores the agreement at the current version with either key.
    recorded = Record(mode_ == "PrivacyNotice" ? Setting{"PrivacyNotice", "true"}
                                               : Setting{"PrivacyAgree", kCurrentPrivacyVersion},
                      waitMs);
    if (sharing && *sharing != SharingOn()) {
      recorded = Record(Setting{"ShareAnalysis", *sharing ? "true" : "false"}, waitMs) && recorded;
    }
  } else if (choice == tools::Choice::kDecline) {
    recorded = Record(Setting{"ShareAnalysis", "false"}, waitMs);
  }
  ReportEvent("TARN_PC_SERVICE_UI_OPEN", "open_time", openTime_, mode_);
  for (const Operation& operation : operations_) {
    ReportEvent("TARN_PC_SERVICE_UI_OPERATOR", "tarncore_reportTime", operation.time, operation.control);
  }
  ReportEvent("TARN_PC_SERVICE_UI_CLOSE", "close_time", Now(), mode_);
  return recorded;
}

}  // namespace tarn::notice

#include "pipeline/RequestGates.h"

#include <json/value.h>

#include <atomic>

#include "pipeline/ConnectManager.h"

namespace {

std::atomic<RequestGates*> g_installed{nullptr};

RequestGates& Fallback() {
  static auto* gates = new DefaultRequestGates;  // request threads may outlive static teardown
  return *gates;
}

constexpr const char* kNotifyTemplate =
    "{\"header\":{\"action\":\"\"},\"notifyMsg\":{\"version\": \"5.1.0.300\"}}";

void BuildNotify(const std::string& action, const char* key, const std::string& value,
                 std::string& out) {
  Json::Value root;
  if (!ConnectManager::Parse(kNotifyTemplate, kNotifyTemplate + std::char_traits<char>::length(kNotifyTemplate), root)) {
    return;
  }
  root["header"]["action"] = action;
  root["notifyMsg"][key] = value;
  root["notifyMsg"]["version"] = "";
  root["notifyMsg"]["level"] = "";
  out = ConnectManager::Render(root);
}

}  // namespace

RequestGates& RequestGates::Get() {
  RequestGates* gates = g_installed.load(std::memory_order_acquire);
  return gates ? *gates : Fallback();
}

void RequestGates::Install(RequestGates* gates) {
  g_installed.store(gates, std::memory_order_release);
}

bool DefaultRequestGates::IsInitComplete() { return true; }

void DefaultRequestGates::Invoke(RequestHeader&, ConvertedRequest&, ServerResCallBack*, ResponseStatus& status) {
  SetResponseStatus(status, TarnStatus::kApiNotSupported);
}

bool DefaultRequestGates::IsTarnCorerequest(uint32_t, const RequestHeader&) { return false; }

bool DefaultRequestGates::VerifyEnabled() { return true; }

int DefaultRequestGates::CheckCertFingerprint(const std::string&, uint32_t, const std::string&,
                                              const std::string&, const std::string&) {
  return 1;
}

void DefaultRequestGates::SetLastCheckTime(const std::string&) {}

void DefaultRequestGates::RecordApiCall(ServerResCallBack*, const std::string&) {}

void DefaultRequestGates::GetNotifyMsg(const std::string& action, int isUserAgree,
                                       std::string& out) {
  BuildNotify(action, "isUserAgree", std::to_string(isUserAgree), out);
}

void DefaultRequestGates::GetUpdateKitResultMsg(const std::string& result, std::string& out) {
  BuildNotify("com.vantrel.tarn.updateKitResult", "updateKitResult", result, out);
}

// Calls across the plug-in border: api functions with their answer callback,
// and event functions.
#include <json/reader.h>
#include <json/value.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>

#include "kit/KitLibrary.h"
#include "kit/LoadManger.h"
#include "pipeline/ServerManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"
#include "tarnkit/tarn_kit.h"

namespace {

// What the system's loader reports for a missing export.
constexpr int kErrorProcNotFound = 127;

// One request's answer callback. It keeps its own copies of the package, the
// method and the item pointer: the api record it was made from is gone by the
// time a late answer comes. Copies of the callback share one state, so one
// callback delivers to its own request once, however often the kit calls it.
// Its own request is known by its id, not by the item's address: once answered
// the item is freed, and a new request's item may take the same address.
struct AnswerState {
  AnswerState(ServerResCallBack* request, const std::string& package, const std::string& method)
      : item(request), msgIdentify(request ? request->msgIdentify : std::string()), packageName(package),
        apiName(method) {}
  ServerResCallBack* const item;
  const std::string msgIdentify;
  const std::string packageName;
  const std::string apiName;
  std::atomic<bool> answered{false};
};

void DeliverAnswer(AnswerState& state, char* text) {
  std::string answer(text ? text : "");
  ServerResCallBack* target = state.item;
  const bool byId = answer.find("\"syncMessageId\"") != std::string::npos;
  if (byId) {
    std::string syncMessageId;
    LoadManger::GetInstance().GetJsonFieldForSyncMessageId(answer, syncMessageId);
    target = ServerManager::GetInstance().GetServerResCallBackByMessageId(syncMessageId);
    if (!target) {
      CLOGE("LoadManger::Invoke", "kit method invoke failed.GetServerResCallBackByMessageId is null");
      return;
    }
  }
  if (!target) return;
  // A second answer to this callback's own request: it was answered, and deleted.
  const bool ownRequest = !byId || target->msgIdentify == state.msgIdentify;
  if (ownRequest && state.answered.exchange(true)) {
    CLOGE("LoadManger::Invoke", "kit method invoke failed.GetServerResCallBackByMessageId is null");
    return;
  }
  CLOGI("LoadManger::Invoke", "kit method invoke success.packageName = "
                                  << state.packageName << " method = " << state.apiName
                                  << " msgIdentify = " << target->msgIdentify);
  target->Excute(answer);
}

}  // namespace

bool LoadManger::Invoke(KitApiDetailInfo& api, ServerResCallBack* item, ConvertedRequest& request,
                        ResponseStatus& status) {
  const std::string msgIdentify = item ? item->msgIdentify : std::string();
  CLOGD("LoadManger::Invoke", "kit method invoke begin. msgIdentify = " << msgIdentify);
  void* module = nullptr;
  if (!FindKit(api.packageName, module) || !module) {
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    CLOGE("LoadManger::Invoke", "LoadManger.Invoke failed. unload packageName = "
                                    << api.packageName << " msgIdentify = " << msgIdentify);
    return false;
  }
  auto function = reinterpret_cast<TarnKitApiFunction>(FindApiFunction(module, api.apiName));
  if (!function) {
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    CLOGE("LoadManger::Invoke", "kit method invoke failed.packageName = "
                                    << api.packageName << " method = " << api.apiName
                                    << " error_code = " << kErrorProcNotFound
                                    << " msgIdentify = " << msgIdentify);
    return false;
  }
  auto state = std::make_shared<AnswerState>(item, api.packageName, api.apiName);
  function(request.header.c_str(), request.body.c_str(),
           [state](char* text) { DeliverAnswer(*state, text); });
  return true;
}

bool LoadManger::NotifyWinEventToKit(KitApiDetailInfo& api, ConvertedRequest& request,
                                     ResponseStatus& status) {
  CLOGD("LoadManger::NotifyWinEventToKit", "LoadManger.NotifyWinEventToKit begin.");
  void* module = nullptr;
  if (!FindKit(api.packageName, module) || !module) {
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    CLOGE("LoadManger::NotifyWinEventToKit",
          "LoadManger.NotifyWinEventToKit failed. unload packageName = " << api.packageName);
    return false;
  }
  auto function = reinterpret_cast<TarnKitApiFunction>(tarn::kit::FindExport(module, api.apiName));
  if (!function) {
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
    CLOGE("LoadManger::NotifyWinEventToKit", "LoadManger.NotifyWinEventToKit failed.packageName = "
                                                 << api.packageName << kErrorProcNotFound);
    return false;
  }
  // The kit's answer to an event goes nowhere; it is only noted.
  TarnKitCallback notify = [packageName = api.packageName](char*) {
    CLOGI("LoadManger::NotifyWinEventToKit",
          "LoadManger.NotifyWinEventToKit success.packageName = " << packageName);
  };
  function(request.header.c_str(), request.body.c_str(), notify);
  CLOGD("LoadManger::NotifyWinEventToKit", "LoadManger.NotifyWinEventToKit end.");
  return true;
}

void LoadManger::GetJsonFieldForSyncMessageId(std::string text, std::string& syncMessageId) {
  Json::CharReaderBuilder builder;
  Json::Value root;
  std::string errors;
  std::istringstream stream(text);
  bool parsed = Json::parseFromStream(builder, stream, &root, &errors);
  if (!parsed || !errors.empty()) {
    CLOGE("LoadManger::GetJsonFieldForSyncMessageId", "convertReqMess data format error.");
    return;
  }
  try {
    syncMessageId = root["header"]["syncMessageId"].asString();
  } catch (const Json::LogicError&) {
    // JSON that isn't an object, or an id that isn't a scalar, names no request;
    // the answer comes from a kit's thread, where an exception has no catcher.
    syncMessageId.clear();
    CLOGE("LoadManger::GetJsonFieldForSyncMessageId", "convertReqMess data format error.");
  }
}

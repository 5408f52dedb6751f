// Request text as a client may send it, along the road RequestInvoke takes:
// ConvertRequest, the header read from the parsed tree, the response header.
// Only jsoncpp's LogicError (a present key with a non-string value) may leave
// the envelope: the pipeline catches it and leaves the caller without an
// answer. Each shortcut must give what its long way gives.
#include <json/value.h>
#include <json/writer.h>

#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/ServerResCallBack.h"

namespace {

using tarn::fuzz::Check;

bool EndsWithLineFeed(const std::string& s) { return !s.empty() && s.back() == '\n'; }

bool SameHeader(const RequestHeader& a, const RequestHeader& b) {
  return a.version == b.version && a.srv_name == b.srv_name && a.api_name == b.api_name &&
         a.app_id == b.app_id && a.pkg_name == b.pkg_name && a.sdk_version == b.sdk_version &&
         a.session_id == b.session_id && a.transaction_id == b.transaction_id &&
         a.kitSdkVersion == b.kitSdkVersion && a.apiLevel == b.apiLevel && a.client_id == b.client_id;
}

// The header read from the text alone; false when that throws.
bool ReadFromText(const std::string& headerText, RequestHeader& header, ResponseStatus& status) {
  try {
    header = ConnectManager::GetReqHeader(headerText, status);
    return true;
  } catch (const Json::LogicError&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (tarn::log::SetThreshold(tarn::log::Level::Off), true);
  (void)quiet;

  std::string text(tarn::fuzz::Bytes(data, size));

  // The system's own renderer writes what the library's writer writes.
  Json::Value any;
  if (ConnectManager::Parse(text.data(), text.data() + text.size(), any)) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Check(ConnectManager::Render(any) == Json::FastWriter().write(any), "rendering equals FastWriter's");
#pragma GCC diagnostic pop
  }
  TagIPCMessageItem item;
  item.messageCode = IpcRequestMessageCode;
  item.syncMessageId = -123;
  item.body = text.data();
  item.bodySize = static_cast<uint32_t>(text.size());
  ServerResCallBack callback(item, 1, RequestHeader{}, ResponseStatus{});

  ResponseStatus status;
  ConnectManager::ParsedHeader parsed;
  ConvertedRequest request;
  try {
    request = ConnectManager::ConvertRequest(callback, status, parsed);
  } catch (const Json::LogicError&) {
    return 0;
  }
  if (status.status_code != "0") {
    Check(status.status_code == "907135000" && status.error_code == "907135000", "parse failure code");
    Check(request.header.empty() && request.body.empty(), "parse failure leaves an empty record");
    return 0;
  }
  if (!request.header.empty()) {
    Check(EndsWithLineFeed(request.header), "header text ends in a line feed");
    Check(request.header.find("\"syncMessageId\":\"-123\"") != std::string::npos, "syncMessageId set");
  }
  if (!request.body.empty()) Check(EndsWithLineFeed(request.body), "body text ends in a line feed");

  RequestHeader fromText;
  ResponseStatus textStatus;
  const bool textRead = ReadFromText(request.header, fromText, textStatus);
  RequestHeader header;
  ResponseStatus treeStatus;
  try {
    header = ConnectManager::GetReqHeader(request.header, parsed, treeStatus);
  } catch (const Json::LogicError&) {
    Check(!textRead, "the parsed header throws only where the text does");
    return 0;
  }
  Check(textRead, "the parsed header throws where the text does");
  Check(SameHeader(header, fromText), "the parsed header reads what the text reads");
  Check(treeStatus.status_code == textStatus.status_code, "same status either way");
  Check(treeStatus.status_code == (request.header.empty() ? "907135000" : "0"), "header status");

  // Status texts with any bytes, zeros included, besides the request's values.
  ResponseStatus outcome;
  outcome.error_reason = text.substr(0, 64);
  outcome.resolution = header.app_id;
  const std::string response = ConnectManager::GetResHeader(header, outcome);
  Check(response == ConnectManager::GetResHeaderFromTemplate(header, outcome),
        "response header equals the template's rendering");
  Json::Value rendered;
  Check(ConnectManager::Parse(response.data(), response.data() + response.size(), rendered),
        "response header is JSON");
  Check(rendered.isObject() && !rendered.isMember("syncMessageId"), "no syncMessageId in a response");
  return 0;
}

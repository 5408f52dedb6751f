// Request text as a client may send it, through the two readers of the
// envelope. The only exceptions allowed out of them are jsoncpp's own (a
// non-string header value): the pipeline catches those and leaves the caller
// without an answer. Anything else, or a broken invariant, is a finding.
#include <json/value.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "pipeline/ConnectManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

bool EndsWithLineFeed(const std::string& s) { return !s.empty() && s.back() == '\n'; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    tarn::log::SetThreshold(tarn::log::Level::Off);
    return true;
  }();
  (void)quiet;

  std::string text(reinterpret_cast<const char*>(data), size);
  TagIPCMessageItem item;
  item.messageCode = IpcRequestMessageCode;
  item.syncMessageId = -123;
  item.body = text.data();
  item.bodySize = static_cast<uint32_t>(text.size());
  ServerResCallBack callback(item, 1, RequestHeader{}, ResponseStatus{});

  ResponseStatus status;
  try {
    ConvertedRequest request = ConnectManager::ConvertRequest(callback, status);
    if (status.status_code != "0") {
      Check(status.status_code == "907135000" && status.error_code == "907135000");
      Check(request.header.empty() && request.body.empty());
    } else {
      if (!request.header.empty()) {
        Check(EndsWithLineFeed(request.header));
        Check(request.header.find("\"syncMessageId\":\"-123\"") != std::string::npos);
      }
      if (!request.body.empty()) Check(EndsWithLineFeed(request.body));
      RequestHeader header = ConnectManager::GetReqHeader(request.header, status);
      Check(status.status_code == (request.header.empty() ? "907135000" : "0"));
      std::string response = ConnectManager::GetResHeader(header, ResponseStatus{});
      Check(EndsWithLineFeed(response));
      Json::Value rendered;
      Check(ConnectManager::Parse(response.data(), response.data() + response.size(), rendered));
      Check(rendered.isObject() && !rendered.isMember("syncMessageId"));
    }
  } catch (const Json::Exception&) {
  }

  ResponseStatus direct;
  try {
    ConnectManager::GetReqHeader(text, direct);
  } catch (const Json::Exception&) {
  }
  return 0;
}

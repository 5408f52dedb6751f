#include <gtest/gtest.h>
#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "pipeline/ConnectManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/log_capture.h"

namespace {

using tarn::log::Level;

// A callback as OnMsgCallback makes it, for the converter only.
struct Incoming {
  explicit Incoming(std::string text, int32_t id = 17) : body(std::move(text)) {
    item.messageCode = IpcRequestMessageCode;
    item.syncMessageId = id;
    item.body = body.data();
    item.bodySize = static_cast<uint32_t>(body.size());
    callback = std::make_unique<ServerResCallBack>(item, 1, RequestHeader{}, ResponseStatus{});
  }
  std::string body;
  TagIPCMessageItem item;
  std::unique_ptr<ServerResCallBack> callback;
};

const char* kErrorHeader907135000 =
    "{\"api_name\":\"\",\"app_id\":\"\",\"error_code\":\"907135000\",\"error_reason\":\"data "
    "format is error.\",\"pkg_name\":\"\",\"resolution\":\"\",\"session_id\":\"\",\"srv_name\":"
    "\"\",\"status_code\":\"907135000\",\"transaction_id\":\"\",\"version\":\"\"}\n";

TEST(ConvertRequest, RendersHeaderWithSyncMessageIdAndBody) {
  Incoming in(
      "{\"header\":{\"api_name\":\"Account.Request\",\"apiLevel\":\"3\",\"srv_name\":\"Account\","
      "\"sdk_version\":\"1.2\",\"client_id\":\"c1\",\"syncMessageId\":\"999\"},\"body\":{\"k\":\"v\"}}");
  ResponseStatus status;
  ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status);
  EXPECT_EQ("0", status.status_code);
  EXPECT_EQ("Account.Request", r.api_name);
  EXPECT_EQ("3", r.apiLevel);
  EXPECT_EQ("Account", r.srv_name);
  EXPECT_EQ("1.2", r.sdk_version);
  // The library's key order, the id of the item (not the client's), a line feed.
  EXPECT_EQ(
      "{\"apiLevel\":\"3\",\"api_name\":\"Account.Request\",\"client_id\":\"c1\",\"sdk_version\":"
      "\"1.2\",\"srv_name\":\"Account\",\"syncMessageId\":\"17\"}\n",
      r.header);
  EXPECT_EQ("{\"k\":\"v\"}\n", r.body);
}

TEST(ConvertRequest, OddButValidShapes) {
  ResponseStatus status;
  {
    Incoming in("{}");
    ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status);
    EXPECT_EQ("0", status.status_code);
    EXPECT_EQ("", r.header);
    EXPECT_EQ("", r.body);
  }
  {
    Incoming in("{\"header\":{},\"body\":null}");
    ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status);
    EXPECT_EQ("null\n", r.body);
  }
  {
    // "header" only as a key inside the body: the document gains a header.
    Incoming in("{\"body\":{\"header\":1}}", -3);
    ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status);
    EXPECT_EQ("{\"syncMessageId\":\"-3\"}\n", r.header);
    EXPECT_EQ("{\"header\":1}\n", r.body);
  }
  EXPECT_EQ("0", status.status_code);
}

TEST(ConvertRequest, NotJsonSetsDataFormatError) {
  tarn::log::LogCapture logs;
  for (const char* text : {"this is not json", "", "{\"header\":"}) {
    Incoming in(text);
    ResponseStatus status;
    ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status);
    EXPECT_EQ("907135000", status.status_code) << text;
    EXPECT_EQ("907135000", status.error_code);
    EXPECT_EQ("data format is error.", status.error_reason);
    EXPECT_EQ("", r.header);
  }
  EXPECT_TRUE(logs.Has(Level::Error, "req mgs error.(ConnectManager::ConvertRequest)"));
}

TEST(ConvertRequest, NonStringOrMisplacedKeysThrow) {
  ResponseStatus status;
  for (const char* text : {
           "{\"header\":{\"apiLevel\":3}}",
           "{\"header\":{\"api_name\":null}}",
           // api_name quoted only inside the body reads a missing member.
           "{\"header\":{\"x\":\"1\"},\"body\":{\"api_name\":\"y\"}}",
       }) {
    Incoming in(text);
    EXPECT_THROW(ConnectManager::ConvertRequest(*in.callback, status), Json::LogicError) << text;
  }
}

TEST(GetReqHeader, ReadsPresentFieldsAndLeavesOthersEmpty) {
  ResponseStatus status;
  RequestHeader h = ConnectManager::GetReqHeader(
      "{\"version\":\"1\",\"srv_name\":\"S\",\"api_name\":\"S.a\",\"app_id\":\"A\",\"pkg_name\":"
      "\"P\",\"sdk_version\":\"2\",\"session_id\":\"se\",\"transaction_id\":\"tr\","
      "\"kitSdkVersion\":\"k\",\"apiLevel\":\"9\",\"syncMessageId\":\"5\"}\n",
      status);
  EXPECT_EQ("0", status.status_code);
  EXPECT_EQ("1", h.version);
  EXPECT_EQ("S", h.srv_name);
  EXPECT_EQ("S.a", h.api_name);
  EXPECT_EQ("A", h.app_id);
  EXPECT_EQ("P", h.pkg_name);
  EXPECT_EQ("2", h.sdk_version);
  EXPECT_EQ("se", h.session_id);
  EXPECT_EQ("tr", h.transaction_id);
  EXPECT_EQ("k", h.kitSdkVersion);
  EXPECT_EQ("9", h.apiLevel);
  EXPECT_EQ("", h.client_id);  // absent: the request goes on without it

  EXPECT_THROW(ConnectManager::GetReqHeader("{\"client_id\":7}", status), Json::LogicError);
  EXPECT_THROW(ConnectManager::GetReqHeader("{\"x\":\"\\\"client_id\"}", status),
               Json::LogicError);
}

TEST(GetReqHeader, EmptyOrBrokenTextSetsDataFormatError) {
  tarn::log::LogCapture logs;
  ResponseStatus status;
  ConnectManager::GetReqHeader("", status);
  EXPECT_EQ("907135000", status.status_code);
  EXPECT_EQ("data format is error.", status.error_reason);
  EXPECT_TRUE(logs.Has(Level::Error, "request data parse error.(ConnectManager::GetReqHeader)"));
}

TEST(ResponseBuilders, HeadersCarryTheirFieldsAndNeverTheId) {
  RequestHeader h;
  h.version = "1";
  h.srv_name = "S";
  h.api_name = "S.a";
  h.app_id = "A";
  h.pkg_name = "P";
  h.sdk_version = "2";
  h.session_id = "se";
  h.transaction_id = "tr";
  h.kitSdkVersion = "k";
  h.apiLevel = "9";
  h.client_id = "c";
  ResponseStatus ok;
  ok.resolution = "none";
  EXPECT_EQ(
      "{\"api_name\":\"S.a\",\"app_id\":\"A\",\"error_code\":\"0\",\"error_reason\":\"success\","
      "\"pkg_name\":\"P\",\"resolution\":\"none\",\"session_id\":\"se\",\"srv_name\":\"S\","
      "\"status_code\":\"0\",\"transaction_id\":\"tr\",\"version\":\"1\"}\n",
      ConnectManager::GetResHeader(h, ok));

  ResponseStatus bad;
  SetResponseStatus(bad, TarnStatus::kDataFormatError);
  std::string msg;
  ConnectManager::GetResErrorMsg(bad, msg);
  EXPECT_EQ(std::string("{\"header\":") + kErrorHeader907135000 + ",\"body\":{}\n}", msg);
}

TEST(ResponseBuilders, BodiesOfTheSpecialAnswers) {
  std::string out;
  ConnectManager::GetResErrorBodyEdr(out, "svc", "https://x", "k");
  EXPECT_EQ("{\"key\":\"k\",\"serviceName\":\"svc\",\"url\":\"https://x\"}\n", out);
  ConnectManager::GetResErrorBodyForceUpdate(out, "1");
  EXPECT_EQ("{\"forceUpdate\":\"1\"}\n", out);
  ConnectManager::GetResErrorBodyCheckPermission(out, "true");
  EXPECT_EQ("{\"checkPermission\":\"\",\"checkPermissionResult\":\"true\"}\n", out);

  std::map<std::string, std::string> results{{"b", "1"}};
  ConnectManager::GetResErrorBodyCheckPermissionList(out, {"b", "a"}, results);
  EXPECT_EQ(
      "{\"checkPermissions\":[{\"checkPermissionResult\":\"1\",\"permission\":\"b\"},"
      "{\"checkPermissionResult\":\"\",\"permission\":\"a\"}]}\n",
      out);
  EXPECT_EQ(1u, results.count("a"));  // a missing name is inserted
  ConnectManager::GetResErrorBodyCheckPermissionList(out, {}, results);
  EXPECT_EQ("{}\n", out);

  tarn::log::LogCapture logs;
  ResponseStatus ok;
  ConnectManager::GetResErrorMsgCheckPermissionList(ok, out, {"p"}, results);
  EXPECT_TRUE(logs.Contains("GetResErrorMsgCheckPermissionList. msg:{\"header\":"));
  ConnectManager::GetResErrorMsgForceUpdate(ok, out, "2");
  EXPECT_NE(std::string::npos, out.find(",\"body\":{\"forceUpdate\":\"2\"}\n}"));
}

}  // namespace

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

// The request road reads the header that ConvertRequest parsed instead of its
// rendered text, and renders response headers without the template's tree;
// both must give what the long way gives, for any text.
struct HeaderOutcome {
  bool threw = false;
  RequestHeader header;
  ResponseStatus status;
};

HeaderOutcome ReadHeader(const std::string& text, bool fromParsed) {
  Incoming in(text);
  HeaderOutcome out;
  try {
    ConnectManager::ParsedHeader parsed;
    ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, out.status, parsed);
    out.header = fromParsed ? ConnectManager::GetReqHeader(r.header, parsed, out.status)
                            : ConnectManager::GetReqHeader(r.header, out.status);
  } catch (const Json::LogicError&) {
    out.threw = true;
  }
  return out;
}

std::vector<std::string> Fields(const RequestHeader& h) {
  return {h.version,    h.srv_name,       h.api_name,      h.app_id,   h.pkg_name, h.sdk_version,
          h.session_id, h.transaction_id, h.kitSdkVersion, h.apiLevel, h.client_id};
}

TEST(GetReqHeader, ParsedHeaderReadsWhatTheRenderedTextReads) {
  for (const std::string& text : {
           std::string("{\"header\":{\"version\":\"1\",\"srv_name\":\"S\",\"api_name\":\"S.a\",\"app_id\":"
                       "\"A\",\"pkg_name\":\"P\",\"sdk_version\":\"2\",\"session_id\":\"se\","
                       "\"transaction_id\":\"tr\",\"kitSdkVersion\":\"k\",\"apiLevel\":\"9\","
                       "\"client_id\":\"c\"},\"body\":{}}"),
           std::string("{}"),
           std::string("{\"body\":{\"header\":1}}"),
           // Escapes, control characters, text that is and isn't UTF-8.
           std::string("{\"header\":{\"app_id\":\"a\\\"b\\\\c\\n\\u0001\\/\",\"api_name\":\"x\"}}"),
           std::string("{\"header\":{\"app_id\":\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"}}"),
           std::string("{\"header\":{\"app_id\":\"bad \xff\xfe \xc3\"}}"),
           std::string("{\"header\":{\"app_id\":\"zero\\u0000cut\"}}"),
           // A key spelled with an escape is present in the rendered text only.
           std::string("{\"header\":{\"api\\u005fname\":\"E.e\"}}"),
           // Keys that are present with other types, or only deeper down.
           std::string("{\"header\":{\"client_id\":7}}"),
           std::string("{\"header\":{\"client_id\":1.5e400}}"),
           std::string("{\"header\":{\"client_id\":null}}"),
           std::string("{\"header\":{\"x\":{\"client_id\":\"deep\"}}}"),
           std::string("{\"header\":{\"x\":\"\\\"session_id\\\"\"}}"),
           std::string("{\"header\":{\"pkg_name\":\"one\",\"pkg_name\":\"two\"}}"),
       }) {
    HeaderOutcome slow = ReadHeader(text, false);
    HeaderOutcome fast = ReadHeader(text, true);
    EXPECT_EQ(slow.threw, fast.threw) << text;
    EXPECT_EQ(Fields(slow.header), Fields(fast.header)) << text;
    EXPECT_EQ(slow.status.status_code, fast.status.status_code) << text;
  }
}

TEST(ResponseBuilders, ResponseHeaderMatchesTheTemplateWay) {
  const std::vector<std::string> values = {
      "", "plain", "quote\" back\\ slash/", "tab\t nl\n cr\r \x01\x1f\x7f", "caf\xc3\xa9 \xf0\x9f\x98\x80",
      "broken \xff\xc3 \xed\xa0\x80", std::string("zero\0inside", 11), "<script>&amp;"};
  for (const std::string& v : values) {
    RequestHeader h;
    h.version = v;
    h.srv_name = v + "s";
    h.api_name = v;
    h.app_id = "a";
    h.pkg_name = v;
    h.session_id = v;
    h.transaction_id = v;
    h.client_id = v;  // not in a response
    ResponseStatus st;
    st.resolution = v;
    st.error_reason = v;
    EXPECT_EQ(ConnectManager::GetResHeaderFromTemplate(h, st), ConnectManager::GetResHeader(h, st))
        << v;
  }
}

}  // namespace

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

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

TEST(ConvertRequest, RendersHeaderWithTheItemsSyncMessageIdAndBody) {
  Incoming in(
      "{\"header\":{\"api_name\":\"Account.Request\",\"apiLevel\":\"3\",\"srv_name\":\"Account\","
      "\"sdk_version\":\"1.2\",\"client_id\":\"c1\",\"syncMessageId\":\"999\"},\"body\":{\"k\":\"v\"}}");
  ResponseStatus status;
  ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status);
  EXPECT_EQ("0", status.status_code);
  EXPECT_EQ("Account.Request/3/Account/1.2", r.api_name + "/" + r.apiLevel + "/" + r.srv_name + "/" + r.sdk_version);
  // The library's key order, the id of the item (not the client's), a line feed.
  EXPECT_EQ(
      "{\"apiLevel\":\"3\",\"api_name\":\"Account.Request\",\"client_id\":\"c1\",\"sdk_version\":"
      "\"1.2\",\"srv_name\":\"Account\",\"syncMessageId\":\"17\"}\n",
      r.header);
  EXPECT_EQ("{\"k\":\"v\"}\n", r.body);

  // "header" only as a key inside the body: the document gains a header.
  Incoming odd("{\"body\":{\"header\":1}}", -3);
  r = ConnectManager::ConvertRequest(*odd.callback, status);
  EXPECT_EQ("{\"syncMessageId\":\"-3\"}\n", r.header);
  EXPECT_EQ("{\"header\":1}\n", r.body);
}

// Text that is no JSON is a data format error; a key the test finds in the
// text but whose value is no string throws, as the JSON library does.
TEST(ConvertRequest, NotJsonIsDataFormatErrorAndNonStringKeysThrow) {
  tarn::log::LogCapture logs;
  const struct {
    const char* text;
    bool throws;
  } cases[] = {{"this is not json", false}, {"", false}, {"{\"header\":", false},
               {"{\"header\":{\"apiLevel\":3}}", true}, {"{\"header\":{\"api_name\":null}}", true},
               // api_name quoted only inside the body reads a missing member.
               {"{\"header\":{\"x\":\"1\"},\"body\":{\"api_name\":\"y\"}}", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Incoming in(c.text);
    ResponseStatus status;
    if (c.throws) {
      EXPECT_THROW(ConnectManager::ConvertRequest(*in.callback, status), Json::LogicError);
      continue;
    }
    EXPECT_EQ("", ConnectManager::ConvertRequest(*in.callback, status).header);
    EXPECT_EQ("907135000/907135000/data format is error.",
              status.status_code + "/" + status.error_code + "/" + status.error_reason);
  }
  EXPECT_EQ(3u, logs.Count(Level::Error, "req mgs error.(ConnectManager::ConvertRequest)"));

  ResponseStatus status;
  EXPECT_THROW(ConnectManager::GetReqHeader("{\"client_id\":7}", status), Json::LogicError);
  ConnectManager::GetReqHeader("", status);
  EXPECT_EQ("907135000", status.status_code);
  EXPECT_TRUE(logs.Has(Level::Error, "request data parse error.(ConnectManager::GetReqHeader)"));
}

// The request road reads the header that ConvertRequest parsed instead of its
// rendered text; both must read the same, for any text.
struct HeaderOutcome {
  bool threw = false;
  std::vector<std::string> fields;
  std::string status;
};

HeaderOutcome ReadHeader(const std::string& text, bool fromParsed) {
  Incoming in(text);
  HeaderOutcome out;
  ResponseStatus status;
  try {
    ConnectManager::ParsedHeader parsed;
    ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status, parsed);
    RequestHeader h = fromParsed ? ConnectManager::GetReqHeader(r.header, parsed, status)
                                 : ConnectManager::GetReqHeader(r.header, status);
    out.fields = {h.version,    h.srv_name,       h.api_name,      h.app_id,   h.pkg_name, h.sdk_version,
                  h.session_id, h.transaction_id, h.kitSdkVersion, h.apiLevel, h.client_id};
  } catch (const Json::LogicError&) {
    out.threw = true;
  }
  out.status = status.status_code;
  return out;
}

TEST(GetReqHeader, ParsedHeaderReadsWhatTheRenderedTextReads) {
  const std::string full =
      "{\"header\":{\"version\":\"1\",\"srv_name\":\"S\",\"api_name\":\"S.a\",\"app_id\":\"A\","
      "\"pkg_name\":\"P\",\"sdk_version\":\"2\",\"session_id\":\"se\",\"transaction_id\":\"tr\","
      "\"kitSdkVersion\":\"k\",\"apiLevel\":\"9\"},\"body\":{}}";
  EXPECT_EQ((std::vector<std::string>{"1", "S", "S.a", "A", "P", "2", "se", "tr", "k", "9", ""}),
            ReadHeader(full, true).fields);
  for (const std::string& text : std::vector<std::string>{
           full, "{}", "{\"body\":{\"header\":1}}",
           // Escapes, control characters, text that is and isn't UTF-8.
           "{\"header\":{\"app_id\":\"a\\\"b\\\\c\\n\\u0001\\/\",\"api_name\":\"x\"}}",
           "{\"header\":{\"app_id\":\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"}}",
           "{\"header\":{\"app_id\":\"bad \xff\xfe \xc3\"}}", "{\"header\":{\"app_id\":\"zero\\u0000cut\"}}",
           // A key spelled with an escape is present in the rendered text only.
           "{\"header\":{\"api\\u005fname\":\"E.e\"}}",
           // Keys that are present with other types, or only deeper down.
           "{\"header\":{\"client_id\":7}}", "{\"header\":{\"client_id\":1.5e400}}",
           "{\"header\":{\"client_id\":null}}", "{\"header\":{\"x\":{\"client_id\":\"deep\"}}}",
           "{\"header\":{\"x\":\"\\\"session_id\\\"\"}}", "{\"header\":{\"pkg_name\":\"one\",\"pkg_name\":\"two\"}}"}) {
    SCOPED_TRACE(text);
    HeaderOutcome slow = ReadHeader(text, false);
    HeaderOutcome fast = ReadHeader(text, true);
    EXPECT_EQ(slow.threw, fast.threw);
    EXPECT_EQ(slow.fields, fast.fields);
    EXPECT_EQ(slow.status, fast.status);
  }
}

// A success header's exact text is checked on the wire, in the pipeline's suite.
TEST(ResponseBuilders, ErrorMessageTextAndHeadersAsTheTemplateRendersThem) {
  ResponseStatus bad;
  SetResponseStatus(bad, TarnStatus::kDataFormatError);
  std::string msg;
  ConnectManager::GetResErrorMsg(bad, msg);
  EXPECT_EQ(
      "{\"header\":{\"api_name\":\"\",\"app_id\":\"\",\"error_code\":\"907135000\",\"error_reason\":"
      "\"data format is error.\",\"pkg_name\":\"\",\"resolution\":\"\",\"session_id\":\"\","
      "\"srv_name\":\"\",\"status_code\":\"907135000\",\"transaction_id\":\"\",\"version\":\"\"}\n"
      ",\"body\":{}\n}",
      msg);

  // Rendered without the template's tree: the same text for any value.
  for (const std::string& v : {std::string(""), std::string("quote\" back\\ slash/"),
                               std::string("tab\t nl\n cr\r \x01\x1f\x7f"),
                               std::string("caf\xc3\xa9 \xf0\x9f\x98\x80 broken \xff\xc3 \xed\xa0\x80"),
                               std::string("zero\0inside", 11), std::string("<script>&amp;")}) {
    SCOPED_TRACE(v);
    RequestHeader any{v, v + "s", v, "a", v, "", v, v, "", "", v};
    ResponseStatus st;
    st.resolution = st.error_reason = v;
    EXPECT_EQ(ConnectManager::GetResHeaderFromTemplate(any, st), ConnectManager::GetResHeader(any, st));
    // And every rendering is the library writer's, for names as for texts.
    Json::Value flat(Json::objectValue);
    flat[v] = v;
    flat["k" + v] = "x";
    flat["z"] = v + v;
    Json::Value mixed = flat;
    mixed["n"] = 1;
    for (const Json::Value& value : {flat, mixed, Json::Value(Json::objectValue), Json::Value(v)}) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
      EXPECT_EQ(ConnectManager::Render(value), Json::FastWriter().write(value));
#pragma GCC diagnostic pop
    }
  }
}

}  // namespace

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
    std::string text;
    bool throws;
  } cases[] = {{"this is not json", false}, {"", false}, {"{\"header\":", false},
               {"{\"header\":" + std::string(1001, '['), false},  // deeper than the reader goes
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
  EXPECT_EQ(4u, logs.Count(Level::Error, "req mgs error.(ConnectManager::ConvertRequest)"));

  ResponseStatus status;
  EXPECT_THROW(ConnectManager::GetReqHeader("{\"client_id\":7}", status), Json::LogicError);
  ConnectManager::GetReqHeader("", status);
  EXPECT_EQ("907135000", status.status_code);
  EXPECT_TRUE(logs.Has(Level::Error, "request data parse error.(ConnectManager::GetReqHeader)"));
}

// The request road reads the header that ConvertRequest parsed instead of its
// rendered text. That both read the same for any text is the envelope
// fuzzer's check (fuzz/connect_manager_fuzz.cpp, its corpus holds the odd cases).
TEST(GetReqHeader, ReadsTheElevenFieldsFromTheParsedHeader) {
  Incoming in(
      "{\"header\":{\"version\":\"1\",\"srv_name\":\"S\",\"api_name\":\"S.a\",\"app_id\":\"A\","
      "\"pkg_name\":\"P\",\"sdk_version\":\"2\",\"session_id\":\"se\",\"transaction_id\":\"tr\","
      "\"kitSdkVersion\":\"k\",\"apiLevel\":\"9\"},\"body\":{}}");
  ResponseStatus status;
  ConnectManager::ParsedHeader parsed;
  const ConvertedRequest r = ConnectManager::ConvertRequest(*in.callback, status, parsed);
  const RequestHeader h = ConnectManager::GetReqHeader(r.header, parsed, status);
  EXPECT_EQ((std::vector<std::string>{"1", "S", "S.a", "A", "P", "2", "se", "tr", "k", "9", ""}),
            (std::vector<std::string>{h.version, h.srv_name, h.api_name, h.app_id, h.pkg_name, h.sdk_version,
                                      h.session_id, h.transaction_id, h.kitSdkVersion, h.apiLevel, h.client_id}));
}

// A success header's exact text is checked on the wire, in the pipeline's suite;
// that the header made without the template's tree is the template's text, for
// any value, in the envelope fuzzer.
TEST(ResponseBuilders, ErrorMessageText) {
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
}

}  // namespace

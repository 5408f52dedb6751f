#include "pipeline/ConnectManager.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <functional>
#include <memory>
#include <utility>

#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"

namespace {

constexpr const char* kResHeaderTemplate =
    "{\"header\":{\"version\":\"\",\"status_code\":\"\",\"error_code\":\"\",\"error_reason\":\"\","
    "\"srv_name\":\"\",\"api_name\":\"\",\"app_id\":\"\",\"pkg_name\":\"\",\"session_id\":\"\","
    "\"transaction_id\":\"\",\"resolution\":\"\"}}";

// The same answer as text.find(quotedKey) != npos; memmem is much quicker at
// it in JSON, where the key's first character, '"', is everywhere.
bool HasKey(const std::string& text, const char* quotedKey) {
  return ::memmem(text.data(), text.size(), quotedKey, std::strlen(quotedKey)) != nullptr;
}

// Which of up to 32 quoted keys occur in text, as bits in their order: the
// same answers as HasKey for each, from one pass over the text's quote marks,
// since every occurrence of a quoted key starts at one.
template <std::size_t N>
std::uint32_t PresentKeys(const std::string& text, const char* const (&quotedKeys)[N]) {
  static_assert(N > 0 && N < 32);
  std::size_t lengths[N];
  for (std::size_t i = 0; i < N; ++i) lengths[i] = std::strlen(quotedKeys[i]);
  const std::uint32_t all = (1u << N) - 1;
  std::uint32_t found = 0;
  const char* p = text.data();
  const char* const end = p + text.size();
  while (found != all && p < end) {
    const char* q = static_cast<const char*>(std::memchr(p, '"', static_cast<std::size_t>(end - p)));
    if (!q) break;
    const std::size_t left = static_cast<std::size_t>(end - q);
    for (std::size_t i = 0; i < N; ++i) {
      if ((found & (1u << i)) || lengths[i] > left || q[1] != quotedKeys[i][1]) continue;
      if (std::memcmp(q, quotedKeys[i], lengths[i]) == 0) found |= 1u << i;
    }
    p = q + 1;
  }
  return found;
}

bool ParseText(const std::string& text, Json::Value& root) {
  return ConnectManager::Parse(text.data(), text.data() + text.size(), root);
}

// Every builder starts from a constant template. Parsing it once and copying
// the tree gives the same result as parsing it each time.
bool FromTemplate(const char* text, Json::Value& root) {
  Json::Value parsed;
  if (!ParseText(text, parsed)) return false;
  root = std::move(parsed);
  return true;
}

const Json::Value* ResHeaderTemplate() {
  static const Json::Value* tmpl = [] {
    auto* v = new Json::Value;
    if (!FromTemplate(kResHeaderTemplate, *v)) {
      delete v;
      return static_cast<Json::Value*>(nullptr);
    }
    return v;
  }();
  return tmpl;
}

void BodyFromTemplate(const char* tmpl, std::string& out,
                      const std::function<void(Json::Value& body)>& fill) {
  Json::Value root;
  if (!FromTemplate(tmpl, root)) return;
  fill(root["body"]);
  out = ConnectManager::Render(root["body"]);
}

}  // namespace

bool ConnectManager::Parse(const char* begin, const char* end, Json::Value& root) {
  // What Json::parseFromStream does, without copying the text into a stream.
  thread_local std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errs;
  try {
    return reader->parse(begin, end, &root, &errs) && errs.empty();
  } catch (const Json::RuntimeError&) {
    // Nested deeper than the reader goes: a text it can't read, like any other.
    return false;
  }
}

// FastWriter is what the system renders with (one line, a line feed at the
// end); jsoncpp marks it deprecated in favour of StreamWriterBuilder.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string ConnectManager::Render(const Json::Value& value) {
  thread_local Json::FastWriter writer;
  return writer.write(value);
}
#pragma GCC diagnostic pop

ConvertedRequest ConnectManager::ConvertRequest(ServerResCallBack& callback,
                                                ResponseStatus& status) {
  ParsedHeader unused;
  return ConvertRequest(callback, status, unused);
}

ConvertedRequest ConnectManager::ConvertRequest(ServerResCallBack& callback, ResponseStatus& status,
                                                ParsedHeader& parsed) {
  parsed.present = false;
  ConvertedRequest request;
  const std::string& text = callback.requestText;
  Json::Value root;
  if (!ParseText(text, root)) {
    CLOGE("ConnectManager::ConvertRequest", "req mgs error.");
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    return request;
  }
  static constexpr const char* kKeys[] = {"\"header\"",   "\"api_name\"",    "\"apiLevel\"",
                                          "\"srv_name\"", "\"sdk_version\"", "\"body\""};
  const std::uint32_t present = PresentKeys(text, kKeys);
  auto has = [present](int index) { return (present & (1u << index)) != 0; };
  if (has(0)) {
    Json::Value& header = root["header"];
    header["syncMessageId"] = callback.msgIdentify;
    request.header = Render(header);
    if (has(1)) request.api_name = header["api_name"].asCString();
    if (has(2)) request.apiLevel = header["apiLevel"].asCString();
    if (has(3)) request.srv_name = header["srv_name"].asCString();
    if (has(4)) request.sdk_version = header["sdk_version"].asCString();
    parsed.header = std::move(header);
    parsed.present = true;
  }
  if (has(5)) request.body = Render(root["body"]);
  return request;
}

RequestHeader ConnectManager::GetReqHeader(const std::string& headerText, ResponseStatus& status) {
  RequestHeader header;
  Json::Value root;
  if (!ParseText(headerText, root)) {
    CLOGE("ConnectManager::GetReqHeader", "request data parse error.");
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    return header;
  }
  auto read = [&](const char* quotedKey, const char* key, std::string& field) {
    if (HasKey(headerText, quotedKey)) field = root[key].asCString();
  };
  read("\"version\"", "version", header.version);
  read("\"srv_name\"", "srv_name", header.srv_name);
  read("\"api_name\"", "api_name", header.api_name);
  read("\"app_id\"", "app_id", header.app_id);
  read("\"pkg_name\"", "pkg_name", header.pkg_name);
  read("\"sdk_version\"", "sdk_version", header.sdk_version);
  read("\"session_id\"", "session_id", header.session_id);
  read("\"transaction_id\"", "transaction_id", header.transaction_id);
  read("\"kitSdkVersion\"", "kitSdkVersion", header.kitSdkVersion);
  read("\"apiLevel\"", "apiLevel", header.apiLevel);
  read("\"client_id\"", "client_id", header.client_id);
  return header;
}

namespace {

// The eleven keys and where each value lives, in the order a read takes them.
struct HeaderField {
  const char* quotedKey;
  const char* key;
  std::string RequestHeader::*field;
};
constexpr HeaderField kHeaderFields[] = {
    {"\"version\"", "version", &RequestHeader::version},
    {"\"srv_name\"", "srv_name", &RequestHeader::srv_name},
    {"\"api_name\"", "api_name", &RequestHeader::api_name},
    {"\"app_id\"", "app_id", &RequestHeader::app_id},
    {"\"pkg_name\"", "pkg_name", &RequestHeader::pkg_name},
    {"\"sdk_version\"", "sdk_version", &RequestHeader::sdk_version},
    {"\"session_id\"", "session_id", &RequestHeader::session_id},
    {"\"transaction_id\"", "transaction_id", &RequestHeader::transaction_id},
    {"\"kitSdkVersion\"", "kitSdkVersion", &RequestHeader::kitSdkVersion},
    {"\"apiLevel\"", "apiLevel", &RequestHeader::apiLevel},
    {"\"client_id\"", "client_id", &RequestHeader::client_id},
};

bool IsAscii(const std::string& text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

}  // namespace

RequestHeader ConnectManager::GetReqHeader(const std::string& headerText, const ParsedHeader& parsed,
                                           ResponseStatus& status) {
  // Rendering and parsing again give back every value as it was, with one
  // exception: the writer replaces bytes that aren't UTF-8. Such a value, or
  // anything unusual, takes the way through the text.
  if (!parsed.present || !parsed.header.isObject()) return GetReqHeader(headerText, status);
  static constexpr const char* kQuotedKeys[] = {
      kHeaderFields[0].quotedKey, kHeaderFields[1].quotedKey, kHeaderFields[2].quotedKey,
      kHeaderFields[3].quotedKey, kHeaderFields[4].quotedKey, kHeaderFields[5].quotedKey,
      kHeaderFields[6].quotedKey, kHeaderFields[7].quotedKey, kHeaderFields[8].quotedKey,
      kHeaderFields[9].quotedKey, kHeaderFields[10].quotedKey};
  static_assert(std::size(kQuotedKeys) == std::size(kHeaderFields));
  const std::uint32_t present = PresentKeys(headerText, kQuotedKeys);
  RequestHeader header;
  const Json::Value& root = parsed.header;
  for (std::size_t i = 0; i < std::size(kHeaderFields); ++i) {
    // A present key with a missing or non-string member throws, as it would
    // from the text: the types survive the round trip.
    const HeaderField& f = kHeaderFields[i];
    if (present & (1u << i)) header.*f.field = root[f.key].asCString();
  }
  for (const HeaderField& f : kHeaderFields) {
    if (!IsAscii(header.*f.field)) return GetReqHeader(headerText, status);
  }
  return header;
}

std::string ConnectManager::GetResHeader(const RequestHeader& header,
                                         const ResponseStatus& status) {
  // The template's keys are exactly the eleven set here, so the rendered
  // object is these members in the library's key order, each value quoted by
  // the library. A text with a zero byte inside takes the library's whole way.
  const std::pair<const char*, const std::string*> members[] = {
      {"{\"api_name\":", &header.api_name},
      {",\"app_id\":", &header.app_id},
      {",\"error_code\":", &status.error_code},
      {",\"error_reason\":", &status.error_reason},
      {",\"pkg_name\":", &header.pkg_name},
      {",\"resolution\":", &status.resolution},
      {",\"session_id\":", &header.session_id},
      {",\"srv_name\":", &header.srv_name},
      {",\"status_code\":", &status.status_code},
      {",\"transaction_id\":", &header.transaction_id},
      {",\"version\":", &header.version},
  };
  bool plain = ResHeaderTemplate() != nullptr;
  std::size_t size = 2;
  for (const auto& [prefix, value] : members) {
    if (value->find('\0') != std::string::npos) plain = false;
    size += std::char_traits<char>::length(prefix) + value->size() + 2;
  }
  if (!plain) return GetResHeaderFromTemplate(header, status);
  std::string out;
  out.reserve(size + 16);
  for (const auto& [prefix, value] : members) {
    out += prefix;
    out += Json::valueToQuotedString(value->c_str());
  }
  out += "}\n";
  return out;
}

std::string ConnectManager::GetResHeaderFromTemplate(const RequestHeader& header,
                                                     const ResponseStatus& status) {
  const Json::Value* tmpl = ResHeaderTemplate();
  if (!tmpl) return {};
  Json::Value root = *tmpl;
  Json::Value& h = root["header"];
  h["version"] = header.version;
  h["srv_name"] = header.srv_name;
  h["api_name"] = header.api_name;
  h["app_id"] = header.app_id;
  h["pkg_name"] = header.pkg_name;
  h["session_id"] = header.session_id;
  h["transaction_id"] = header.transaction_id;
  h["status_code"] = status.status_code;
  h["error_code"] = status.error_code;
  h["error_reason"] = status.error_reason;
  h["resolution"] = status.resolution;
  return Render(h);
}

void ConnectManager::GetResErrorHeader(ResponseStatus& status, std::string& out) {
  const Json::Value* tmpl = ResHeaderTemplate();
  if (!tmpl) {
    CLOGE("ConnectManager::GetResErrorHeader", "req message header is null!");
    SetResponseStatus(status, TarnStatus::kDataFormatError);
    return;
  }
  Json::Value root = *tmpl;
  Json::Value& h = root["header"];
  h["status_code"] = status.status_code;
  h["error_code"] = status.error_code;
  h["error_reason"] = status.error_reason;
  h["resolution"] = status.resolution;
  out = Render(h);
}

std::string ConnectManager::GetResMsg(const std::string& headerText, const std::string& bodyText) {
  std::string msg;
  msg.reserve(headerText.size() + bodyText.size() + 20);
  msg += "{\"header\":";
  msg += headerText;
  msg += ",\"body\":";
  msg += bodyText;
  msg += '}';
  return msg;
}

void ConnectManager::GetResErrorBody(std::string& out) {
  BodyFromTemplate("{\"body\":{}}", out, [](Json::Value&) {});
}

void ConnectManager::GetResErrorMsg(ResponseStatus& status, std::string& out) {
  std::string header, body;
  GetResErrorHeader(status, header);
  GetResErrorBody(body);
  out = GetResMsg(header, body);
}

void ConnectManager::GetResErrorBodyEdr(std::string& out, const std::string& serviceName,
                                        const std::string& url, const std::string& key) {
  BodyFromTemplate("{\"body\":{\"serviceName\":\"\",\"url\":\"\",\"key\":\"\"}}", out,
                   [&](Json::Value& body) {
                     body["serviceName"] = serviceName;
                     body["url"] = url;
                     body["key"] = key;
                   });
}

void ConnectManager::GetResErrorMsgEdr(ResponseStatus& status, std::string& out,
                                       const std::string& serviceName, const std::string& url,
                                       const std::string& key) {
  std::string header, body;
  GetResErrorHeader(status, header);
  GetResErrorBodyEdr(body, serviceName, url, key);
  out = GetResMsg(header, body);
}

void ConnectManager::GetResErrorBodyForceUpdate(std::string& out, const std::string& forceUpdate) {
  BodyFromTemplate("{\"body\":{\"forceUpdate\":\"\"}}", out,
                   [&](Json::Value& body) { body["forceUpdate"] = forceUpdate; });
}

void ConnectManager::GetResErrorMsgForceUpdate(ResponseStatus& status, std::string& out,
                                               const std::string& forceUpdate) {
  std::string header, body;
  GetResErrorHeader(status, header);
  GetResErrorBodyForceUpdate(body, forceUpdate);
  out = GetResMsg(header, body);
}

void ConnectManager::GetResErrorBodyCheckPermission(std::string& out, const std::string& result) {
  BodyFromTemplate("{\"body\":{\"checkPermission\":\"\"}}", out,
                   [&](Json::Value& body) { body["checkPermissionResult"] = result; });
}

void ConnectManager::GetResErrorMsgCheckPermission(ResponseStatus& status, std::string& out,
                                                   const std::string& result) {
  std::string header, body;
  GetResErrorHeader(status, header);
  GetResErrorBodyCheckPermission(body, result);
  out = GetResMsg(header, body);
}

void ConnectManager::GetResErrorBodyCheckPermissionList(
    std::string& out, const std::vector<std::string>& names,
    std::map<std::string, std::string>& results) {
  BodyFromTemplate("{\"body\":{}}", out, [&](Json::Value& body) {
    Json::ArrayIndex index = 0;
    for (const auto& name : names) {
      body["checkPermissions"][index]["permission"] = name;
      body["checkPermissions"][index]["checkPermissionResult"] = results[name];
      ++index;
    }
  });
}

void ConnectManager::GetResErrorMsgCheckPermissionList(
    ResponseStatus& status, std::string& out, const std::vector<std::string>& names,
    std::map<std::string, std::string>& results) {
  std::string header, body;
  GetResErrorHeader(status, header);
  GetResErrorBodyCheckPermissionList(body, names, results);
  out = GetResMsg(header, body);
  CLOGD("ConnectManager::GetResErrorMsgCheckPermissionList",
        "GetResErrorMsgCheckPermissionList. msg:" << out);
}

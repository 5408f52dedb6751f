#include "pipeline/ConnectManager.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

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

// Which of a few quoted keys occur in a text, as bits in their order: the same
// answers as HasKey for each, from one pass over the text's quote marks, since
// every occurrence of a quoted key starts at one. At each mark only the keys
// whose name starts with the character after it are compared.
class KeyTest {
 public:
  template <std::size_t N>
  explicit KeyTest(const char* const (&quotedKeys)[N]) : keys_(quotedKeys, quotedKeys + N) {
    static_assert(N > 0 && N < 32);
    for (std::size_t i = 0; i < N; ++i) {
      lengths_[i] = std::strlen(quotedKeys[i]);
      byFirst_[static_cast<unsigned char>(quotedKeys[i][1])] |= 1u << i;
    }
  }

  std::uint32_t Present(const std::string& text) const {
    const std::uint32_t all = (1u << keys_.size()) - 1;
    std::uint32_t found = 0;
    const char* p = text.data();
    const char* const end = p + text.size();
    while (found != all && p < end) {
      const char* q = static_cast<const char*>(std::memchr(p, '"', static_cast<std::size_t>(end - p)));
      if (!q || q + 1 == end) break;
      const std::size_t left = static_cast<std::size_t>(end - q);
      for (std::uint32_t candidates = byFirst_[static_cast<unsigned char>(q[1])] & ~found; candidates;
           candidates &= candidates - 1) {
        const int i = std::countr_zero(candidates);
        if (lengths_[i] <= left && std::memcmp(q, keys_[i], lengths_[i]) == 0) found |= 1u << i;
      }
      p = q + 1;
    }
    return found;
  }

 private:
  std::vector<const char*> keys_;
  std::size_t lengths_[32] = {};
  std::uint32_t byFirst_[256] = {};
};

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

namespace {

// Appends a text (no zero byte inside) quoted as the library quotes it. Text
// that needs no escape is quoted as it is; the library does the rest.
void AppendQuoted(std::string& out, const char* begin, const char* end) {
  const bool plain = std::all_of(begin, end, [](unsigned char c) {
    return c >= 0x20 && c <= 0x7F && c != '"' && c != '\\';
  });
  if (plain) {
    out += '"';
    out.append(begin, end);
    out += '"';
  } else {
    out += Json::valueToQuotedString(std::string(begin, end).c_str());
  }
}

// FastWriter's text of an object whose members are all strings (a request's
// header, most bodies, every answer's header), made without the writer's copy
// of each member's name and look-up by it: the members in the map's order,
// which is the order the writer takes them in. False for any other value and
// for a zero byte inside a name or a text; the writer itself renders those.
bool RenderFlatObject(const Json::Value& value, std::string& out) {
  if (!value.isObject()) return false;
  out = "{";
  for (auto it = value.begin(); it != value.end(); ++it) {
    const char* keyEnd = nullptr;
    const char* key = it.memberName(&keyEnd);
    const char* text = nullptr;
    const char* textEnd = nullptr;
    if (!it->isString() || !it->getString(&text, &textEnd) || std::memchr(key, 0, keyEnd - key) ||
        std::memchr(text, 0, textEnd - text)) {
      return false;
    }
    if (it != value.begin()) out += ',';
    AppendQuoted(out, key, keyEnd);
    out += ':';
    AppendQuoted(out, text, textEnd);
  }
  out += "}\n";
  return true;
}

}  // namespace

// FastWriter is what the system renders with (one line, a line feed at the
// end); jsoncpp marks it deprecated in favour of StreamWriterBuilder.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string ConnectManager::Render(const Json::Value& value) {
  std::string text;
  if (RenderFlatObject(value, text)) return text;
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
  static const KeyTest keyTest(kKeys);
  const std::uint32_t present = keyTest.Present(text);
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
  static const KeyTest keyTest(kQuotedKeys);
  const std::uint32_t present = keyTest.Present(headerText);
  // The members, found in one walk over the object instead of a look-up each.
  const Json::Value& root = parsed.header;
  const Json::Value* members[std::size(kHeaderFields)] = {};
  for (auto it = root.begin(); it != root.end(); ++it) {
    const char* nameEnd = nullptr;
    const char* nameBegin = it.memberName(&nameEnd);
    const std::string_view name(nameBegin, static_cast<std::size_t>(nameEnd - nameBegin));
    for (std::size_t i = 0; i < std::size(kHeaderFields); ++i) {
      if (name == kHeaderFields[i].key) {
        members[i] = &*it;
        break;
      }
    }
  }
  RequestHeader header;
  for (std::size_t i = 0; i < std::size(kHeaderFields); ++i) {
    // A present key with a missing or non-string member throws, as it would
    // from the text: the types survive the round trip.
    const HeaderField& f = kHeaderFields[i];
    if (present & (1u << i)) header.*f.field = (members[i] ? *members[i] : root[f.key]).asCString();
  }
  for (const HeaderField& f : kHeaderFields) {
    if (!IsAscii(header.*f.field)) return GetReqHeader(headerText, status);
  }
  return header;
}

std::string ConnectManager::GetResHeader(const RequestHeader& header,
                                         const ResponseStatus& status) {
  // The template's keys are exactly the eleven set here, so the rendered
  // object is these members in the library's key order, each value quoted as
  // the library quotes it. A text with a zero byte inside takes the library's
  // whole way.
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
    AppendQuoted(out, value->data(), value->data() + value->size());
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

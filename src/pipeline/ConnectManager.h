#pragma once
// The only place that knows the JSON shape of requests and responses. Plain
// functions over strings and records; all JSON goes through jsoncpp
// (CharReaderBuilder to read, FastWriter to write, so every rendered value
// ends in a line feed).
//
// Key test: a key counts as present when its name in double quotes occurs as a
// plain substring of the raw text; its value is then read with asCString(), so
// a present key with a non-string value (or one that only occurs elsewhere in
// the text) throws Json::LogicError.
#include <map>
#include <string>
#include <vector>

#include <json/value.h>

#include "pipeline/Records.h"

class ServerResCallBack;

class ConnectManager {
 public:
  // The request's "header" object as ConvertRequest parsed it, so that
  // GetReqHeader can read it instead of parsing the rendered text again.
  struct ParsedHeader {
    Json::Value header;
    bool present = false;  // header holds what the rendered header text was made of
  };

  // Parses the callback's requestText. On text that is not JSON: status
  // 907135000 and an empty record. May throw Json::LogicError (see above).
  static ConvertedRequest ConvertRequest(ServerResCallBack& callback, ResponseStatus& status);
  // The same, and hands the parsed header to `parsed`.
  static ConvertedRequest ConvertRequest(ServerResCallBack& callback, ResponseStatus& status,
                                         ParsedHeader& parsed);
  // Reads the eleven fields of a rendered header. Not JSON (or empty): status
  // 907135000 and an empty record. May throw Json::LogicError.
  static RequestHeader GetReqHeader(const std::string& headerText, ResponseStatus& status);
  // The same result, logs and exceptions for the header text that ConvertRequest
  // rendered from `parsed`, read from `parsed` where that gives the same values.
  static RequestHeader GetReqHeader(const std::string& headerText, const ParsedHeader& parsed,
                                    ResponseStatus& status);

  // Response header with the identity fields of header and the status fields.
  static std::string GetResHeader(const RequestHeader& header, const ResponseStatus& status);
  // The same text made the long way: the parsed template, its members set, rendered.
  static std::string GetResHeaderFromTemplate(const RequestHeader& header,
                                              const ResponseStatus& status);
  // Response header with the status fields only.
  static void GetResErrorHeader(ResponseStatus& status, std::string& out);

  static void GetResErrorBody(std::string& out);
  static void GetResErrorMsg(ResponseStatus& status, std::string& out);

  static void GetResErrorBodyEdr(std::string& out, const std::string& serviceName,
                                 const std::string& url, const std::string& key);
  static void GetResErrorMsgEdr(ResponseStatus& status, std::string& out,
                                const std::string& serviceName, const std::string& url,
                                const std::string& key);

  static void GetResErrorBodyForceUpdate(std::string& out, const std::string& forceUpdate);
  static void GetResErrorMsgForceUpdate(ResponseStatus& status, std::string& out,
                                        const std::string& forceUpdate);

  // Sets "checkPermissionResult" beside the template's empty "checkPermission".
  static void GetResErrorBodyCheckPermission(std::string& out, const std::string& result);
  static void GetResErrorMsgCheckPermission(ResponseStatus& status, std::string& out,
                                            const std::string& result);

  // "checkPermissions": [{permission, checkPermissionResult}...] in the order of
  // names; a name missing from results is inserted there with an empty value.
  static void GetResErrorBodyCheckPermissionList(std::string& out,
                                                 const std::vector<std::string>& names,
                                                 std::map<std::string, std::string>& results);
  static void GetResErrorMsgCheckPermissionList(ResponseStatus& status, std::string& out,
                                                const std::vector<std::string>& names,
                                                std::map<std::string, std::string>& results);

  // The wire form of a response: {"header":<header>,"body":<body>}
  static std::string GetResMsg(const std::string& headerText, const std::string& bodyText);

  // Helpers for the other builders of the system's JSON (notify and report
  // messages, framework answers): jsoncpp's default reader and FastWriter.
  // Parse: false when the text does not parse or leaves an error text.
  static bool Parse(const char* begin, const char* end, Json::Value& root);
  static std::string Render(const Json::Value& value);
};

#pragma once
// The analytics records: one api call (or one scope service operation) as the
// reporting library receives it.
#include <map>
#include <memory>
#include <string>

// The thirteen strings of a record's "event_data".
struct EvReportApiInfo {
  std::string version;
  std::string service;
  std::string apiName;
  std::string appid;
  std::string package;
  std::string baseVersion;
  std::string transId;
  std::string kitSdkVersion;
  std::string apiLevel;
  std::string callTime;   // "res" only: elapsed ms
  std::string direction;  // "req" or "res"
  std::string statusCode; // "res" only
  std::string result;     // "res" only
};

struct EvReportInfo {
  std::string eventName;
  std::string reportType;
  std::string isImmediately;
  EvReportApiInfo api;
  std::map<std::string, std::string> extra;  // never filled
};

inline constexpr const char* kEvApiCalledEvent = "TARN_PC_SERVICE_API_CALLED";

// The record's JSON text: {"EVReports":[{event_name, reportType, isImmediately,
// event_data{...}}]} rendered compactly with a line feed at its end. Empty if
// the template does not parse.
void GetEvReportText(const std::shared_ptr<EvReportInfo>& info, std::string& out);

#pragma once
// The pipeline's plain records and the status table of the whole system.
#include <string>

// The eleven strings of a request's "header"; an absent field is empty.
struct RequestHeader {
  std::string version;
  std::string srv_name;
  std::string api_name;
  std::string app_id;
  std::string pkg_name;
  std::string sdk_version;
  std::string session_id;
  std::string transaction_id;
  std::string kitSdkVersion;
  std::string apiLevel;
  std::string client_id;
};

// A parsed request: four header fields, and the rendered header (with
// "syncMessageId" added) and body, each ending in a line feed.
struct ConvertedRequest {
  std::string api_name;
  std::string apiLevel;
  std::string srv_name;
  std::string sdk_version;
  std::string header;
  std::string body;
};

// The pipeline's error channel: a failure is status_code other than "0".
struct ResponseStatus {
  std::string status_code = "0";
  std::string error_code = "0";
  std::string error_reason = "success";
  std::string resolution;
};

// One line of the status table. The trailing blanks of the texts are theirs.
struct StatusEntry {
  const char* code;
  const char* reason;
};

namespace TarnStatus {
inline constexpr StatusEntry kSuccess{"0", "success"};
inline constexpr StatusEntry kDataFormatError{"907135000", "data format is error."};
inline constexpr StatusEntry kApiNotSupported{"907135001", "API is not supported. "};
inline constexpr StatusEntry kLoadKitFailed{"907135002", "load kit failed. "};
inline constexpr StatusEntry kKitApiLevelLow{"907135003", "Kit APILevel is low, need update kit. "};
inline constexpr StatusEntry kApiIllegal{"907135004", "API is illegal. "};
inline constexpr StatusEntry kApiLevelLow{"907135005", "APILevel is low, need update. "};
inline constexpr StatusEntry kUpdating{"907135006", "tarncore is updating. "};
inline constexpr StatusEntry kUpdateFailed{"907135007", "tarncore need update, but update failed. "};
inline constexpr StatusEntry kNoNewVersion{"907135008",
                                           "tarncore need update, but not have new version. "};
inline constexpr StatusEntry kUpdateInvokeSuccess{"907135009", "tarncore update invoke success. "};
inline constexpr StatusEntry kUserNotAgree{"907135010", "user not agree to update TarnCore. "};
inline constexpr StatusEntry kNotInited{"907135011", "TarnCore is not inited completely "};
// Same text as kUpdating, a different code.
inline constexpr StatusEntry kUpdating2{"907135012", "tarncore is updating. "};
// Same text as kApiLevelLow, a different code.
inline constexpr StatusEntry kApiLevelLow2{"907135013", "APILevel is low, need update. "};
inline constexpr StatusEntry kUserAgree{"907135014", "user agree to update TarnCore. "};
inline constexpr StatusEntry kEdrQueryFailed{"907135015", "EDR query failed. "};
inline constexpr StatusEntry kNeedForceUpdate{"907135016", "TARNCORE Need force update. "};
inline constexpr StatusEntry kApiIllegalNetworkDown{"907135017",
                                                    "API is illegal with network disconnect. "};
}  // namespace TarnStatus

// The one way a failure is written: the code into status_code and error_code,
// its text into error_reason; resolution stays as it was.
inline void SetResponseStatus(ResponseStatus& status, const StatusEntry& entry) {
  status.status_code = entry.code;
  status.error_code = entry.code;
  status.error_reason = entry.reason;
}

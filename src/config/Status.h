#pragma once
// The request records that the configuration's gates read and write. They belong
// to the request pipeline; they stand here until the pipeline's own header
// carries them, and then this header only forwards to it.
#include <string>

// The pipeline's error channel: a failure is a status_code other than "0".
struct ResponseStatus {
  std::string status_code = "0";
  std::string error_code = "0";
  std::string error_reason = "success";
  std::string resolution;
};

// The eleven strings of a request's "header" object, in wire order.
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

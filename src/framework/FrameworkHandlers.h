#pragma once
// The eleven handlers of the framework kit. Each reads only the request's body
// (and, for Framework.Updatekit, its sdk_version); a body that can't be used
// is answered with 907135000 "data format is error." unless the handler says
// otherwise.
#include <vector>
#include <string>

#include "framework/FrameworkKitAPI.h"

// "Framework.Updatekit": starts a self-update; every answer is the status the
// store manager writes.
class UpdateKitReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
};

// "Framework.GetForceUpdate": forceUpdate "0", "1" or "2" for reqKitName.
class ForceUpdateKitReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  void GetJsonFieldForReq(const ConvertedRequest& request, std::string& kitName);
};

// "Framework.UpdatekitResult": the update UI's report of the user's decision
// or of the update's end. Always a status answer.
class UpdateKitResultReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  void GetJsonFieldForResutCode(const ConvertedRequest& request, std::string& resultCode);
  void GetJsonFieldForUpdateKitName(const ConvertedRequest& request, std::string& kitName);
};

// "Framework.ShowServiceDialog": validated and acknowledged, nothing more.
class ServiceDialogReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  void GetJsonFieldForDialogType(const ConvertedRequest& request, std::string& dialogType);
};

// "Framework.CheckPermission": checkPermissionResult "1" or "0". A malformed
// body is answered "0" with a success header.
class CheckPermissionReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  void GetJsonFieldForReq(const ConvertedRequest& request, std::string& permission,
                          std::string& clientId);
};

// "Framework.CheckPermissionList": one result per permission asked, in order.
class CheckPermissionListReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  void GetJsonFieldForReq(const ConvertedRequest& request, std::vector<std::string>& permissionList,
                          std::string& clientId);
};

// "Framework.VerifyMessage": returnCode true, whatever the body.
class VerifyMessageReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
};

// "Framework.EDRRequest": a service's url from the address book.
class EdrReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  void GetJsonFieldForEdrReq(const ConvertedRequest& request, std::string& serviceName,
                             std::string& key);
};

// "Framework.SetRegValue": one of four switches in the platform's registry key.
class RegSettingReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  bool GetJsonFieldForReq(const ConvertedRequest& request, std::string& key, std::string& value);
};

// "Framework.EVReport": a client's report for the next flush; always success.
class EvReportHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
};

// "Framework.NoticeEvReport": a notice UI record for the local record file.
class NoticeEvReportReqHandler : public FrameworkReqHandlle {
 public:
  void Excute(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status) override;
  bool GetJsonFieldForReq(const ConvertedRequest& request, std::string& type, std::string& data);
};

namespace tarn::framework {
// The privacy version an agreement is recorded at.
inline constexpr const char* kPrivacyVersion = "64000000";
// The returnCode answer in the JSON library's styled text.
std::string ReturnCodeText(bool returnCode);
}  // namespace tarn::framework

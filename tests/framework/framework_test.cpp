// The framework apis as a client meets them: requests over the real socket
// through the pipeline and the kit manager's framework branch, with the update,
// reporting and address-book services replaced by a recorder and the scope
// service by a scripted one.
#include <gtest/gtest.h>
#include <json/value.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "../access/fake_scope.h"
#include "config/ConfigManager.h"
#include "framework/FrameworkHandlers.h"
#include "framework/FrameworkKitAPI.h"
#include "framework/FrameworkServices.h"
#include "kit/KitManagerApi.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerManager.h"
#include "platform/ipc/ipc_client.h"
#include "platform/ipc/signature_manager.h"
#include "platform/log/log_capture.h"
#include "platform/os/registry.h"
#include "support/temp_root.h"

namespace {

using tarn::log::Level;

constexpr const char* kClient = "c1";
constexpr const char* kVtid = "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID";

// Records each call into the services, in order, as one short word.
class RecordingServices : public tarn::framework::FrameworkServices {
 public:
  bool StartSelfUpdate(ResponseStatus& status, const std::string& sdkVersion) override {
    Add("start " + sdkVersion);
    SetResponseStatus(status, TarnStatus::kNoNewVersion);
    return false;
  }
  void CompleteUpdate() override { Add("complete"); }
  bool ShowScrollAndUpdate() override { Add("scroll"); return true; }
  bool HasNewVersion() override { Add("hasNew"); return newVersion; }
  void SendUserConfirmBroadcast(int agree) override { Add("confirm " + std::to_string(agree)); }
  void SendServiceStartBroadcast() override { Add("serviceStart"); }
  void SendUpdateFailedBroadcast(const std::string& result) override { Add("failed " + result); }
  bool InitKitsForUpdate() override { Add("initKits"); return true; }
  void QueueClientReport(const std::string&) override { Add("queue"); }
  void ReportToFile(const std::string& data) override { Add("file " + data); }
  bool GetServiceUrl(const std::string& name, std::string& url, const std::string& key) override {
    Add("url " + name + " " + key);
    if (name != "known") return false;
    url = "https://known.example/" + key;
    return true;
  }

  std::vector<std::string> Calls() { std::lock_guard lock(mutex); return calls; }
  void Clear() { std::lock_guard lock(mutex); calls.clear(); }

  bool newVersion = false;

 private:
  void Add(const std::string& call) { std::lock_guard lock(mutex); calls.push_back(call); }
  std::mutex mutex;
  std::vector<std::string> calls;
};

class KitManagerGates : public DefaultRequestGates {
 public:
  void Invoke(const RequestHeader& header, const ConvertedRequest& request, ServerResCallBack* callback,
              ResponseStatus& status) override {
    RequestHeader ownHeader = header;
    ConvertedRequest ownRequest = request;
    KitManagerApi::GetInstance().Invoke(ownHeader, ownRequest, callback, status);
  }
};

class Framework : public ::testing::Test {
 protected:
  void SetUp() override {
    config.ResetForTesting();
    root.MakeDir(kVtid);
    tarn::framework::SetFrameworkServices(&services);
    tarn::kit::SetKitRuntimeHooks(&hooks);
    scope.native = std::make_shared<access_test::FakeScopeObject>();
    proxy = std::make_unique<ScopeProxy>(scope.Make());
    ScopeProxy::SetInstanceForTesting(proxy.get());
    hooks.RegisterFrameworkHandlers();
    RequestGates::Install(&gates);
    SignatureManager::GetInstance()->Clear();
    SignatureManager::GetInstance()->AddSignatureWhiteList(static_cast<uint32_t>(::getpid()), kClient);
    ServerManager::GetInstance().ServerInit();
    ASSERT_NE(nullptr, g_tarnCoreIpcServer);
  }

  void TearDown() override {
    ServerManager::GetInstance().ServerUnInit();
    SignatureManager::GetInstance()->Clear();
    RequestGates::Install(nullptr);
    ScopeProxy::SetInstanceForTesting(nullptr);
    tarn::kit::SetKitRuntimeHooks(nullptr);
    tarn::framework::SetFrameworkServices(nullptr);
    FrameworkKitAPI::GetInstance().ClearForTesting();
    config.ResetForTesting();
  }

  // Sends one request and gives the answer, or a null value when none came.
  Json::Value Ask(const std::string& uri, const std::string& body, const std::string& sdk = "5.3.0.300") {
    const std::string text =
        "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"Framework\",\"api_name\":\"" + uri +
        "\",\"app_id\":\"app\",\"pkg_name\":\"pkg\",\"sdk_version\":\"" + sdk +
        "\",\"session_id\":\"s\",\"transaction_id\":\"t\",\"kitSdkVersion\":\"1\",\"apiLevel\":\"1\","
        "\"client_id\":\"" + kClient + "\"},\"body\":" + body + "}";
    TagIPCMessageItem item;
    item.target = IpcAddressContainer;
    item.source = IpcAddressClientSide;
    item.messageCode = IpcRequestMessageCode;
    item.reserved = -1;
    item.syncMessageId = ++nextId;
    std::string copy = text;
    item.body = copy.data();
    item.bodySize = static_cast<uint32_t>(copy.size() + 1);
    std::string response;
    Json::Value answer;
    if (client.SendMessageSync(item, response, 10000) == 0) {
      EXPECT_TRUE(ConnectManager::Parse(response.data(), response.data() + response.size(), answer));
    }
    return answer;
  }

  static std::string Status(const Json::Value& answer) { return answer["header"]["status_code"].asString(); }
  static std::string Registry(const std::string& name) {
    std::string value = "(absent)";
    ReadVtidRegistryValue(name, value);
    return value;
  }

  tarn::test::TempRoot root;
  tarn::log::LogCapture log;
  ConfigManager& config = ConfigManager::GetInstance();
  RecordingServices services;
  tarn::framework::FrameworkKitHooks hooks;
  access_test::FakePlatform scope;
  std::unique_ptr<ScopeProxy> proxy;
  KitManagerGates gates;
  TarnCoreIPCMessageClient client{IpcAddressClientSide, false, true};
  int32_t nextId = 100;
};

TEST_F(Framework, RegistrationEntersEveryApiAsAFrameworkApiAndLaterOnesReplaceHandlers) {
  const std::vector<std::string> uris = {"Framework.Updatekit", "Framework.GetForceUpdate",
      "Framework.CheckPermission", "Framework.CheckPermissionList", "Framework.UpdatekitResult",
      "Framework.EVReport", "Framework.ShowServiceDialog", "Framework.EDRRequest",
      "Framework.SetRegValue", "Framework.NoticeEvReport", "Framework.VerifyMessage"};
  ASSERT_EQ(uris.size(), config.kitApiDispathMap.size());
  for (const std::string& uri : uris) {
    const auto& api = config.kitApiDispathMap.at(uri);
    EXPECT_EQ(uri, api->apiName);
    EXPECT_EQ("FRAMEWORK", api->invokeType);
    EXPECT_EQ("FRAMEWORK", api->kitName);
    EXPECT_EQ("1", api->apiLevel);
    EXPECT_EQ("6.7.0.300", api->version);
    EXPECT_EQ("com.vantrel.framework", api->packageName);
    EXPECT_NE(nullptr, FrameworkKitAPI::GetInstance().Find(uri)) << uri;
  }
  auto* later = new VerifyMessageReqHandler;
  FrameworkReqHandlle* earlier = FrameworkKitAPI::GetInstance().Find("Framework.EDRRequest");
  FrameworkKitAPI::GetInstance().Register("Framework.EDRRequest", later);
  EXPECT_EQ(later, FrameworkKitAPI::GetInstance().Find("Framework.EDRRequest"));
  delete earlier;  // the table lets go of a replaced handler without deleting it
  EXPECT_TRUE(Ask("Framework.EDRRequest", "{}")["body"]["returnCode"].asBool());
}

TEST_F(Framework, UnknownUriIsLoggedAndLeavesTheStatusAlone) {
  ResponseStatus status;
  ConvertedRequest request;
  EXPECT_TRUE(FrameworkKitAPI::GetInstance().Invoke("Framework.Nothing", nullptr, request, status));
  EXPECT_EQ("0", status.status_code);
  EXPECT_TRUE(log.Has(Level::Error, "uri: Framework.Nothing is not supported(FrameworkKitAPI::Invoke)"));
}

TEST_F(Framework, UpdateResultBranchesByResultCode) {
  struct Case {
    std::string body;
    std::string status;
    std::vector<std::string> calls;
  };
  const std::vector<Case> cases = {
      {"", "907135000", {"complete"}},
      {R"({"resultCode":""})", "907135000", {"complete"}},
      {R"({"resultCode":"907135010"})", "907135009", {"confirm 2", "complete"}},
      {R"({"resultCode":"907135014"})", "907135009", {"confirm 1", "scroll"}},
      {R"({"resultCode":"907135007","updateKitName":"k"})", "907135009",
       {"failed 907135007", "serviceStart", "complete"}},
      {R"({"resultCode":"907135007"})", "907135000", {"failed 907135007", "complete"}},
      {R"({"resultCode":"0","updateKitName":"k"})", "907135009", {"initKits", "serviceStart", "complete"}},
      {R"({"resultCode":"0"})", "907135000", {"complete"}},
      {R"({"resultCode":"5","updateKitName":"k"})", "907135009", {"serviceStart", "complete"}},
  };
  UpdateKitResultReqHandler handler;
  for (const Case& c : cases) {
    services.Clear();
    ConvertedRequest request;
    request.body = c.body;
    ResponseStatus status;
    handler.Excute("Framework.UpdatekitResult", nullptr, request, status);
    EXPECT_EQ(c.status, status.status_code) << c.body;
    EXPECT_EQ(c.status, status.error_code) << c.body;
    EXPECT_EQ(c.calls, services.Calls()) << c.body;
  }
  // A member that is not a text, or one named only deeper in the body, throws
  // to the kit manager's catch.
  for (const char* body : {R"({"resultCode":5})", R"({"x":{"updateKitName":"k"},"resultCode":"0"})"}) {
    ConvertedRequest request;
    request.body = body;
    ResponseStatus status;
    EXPECT_THROW(handler.Excute("Framework.UpdatekitResult", nullptr, request, status), Json::LogicError)
        << body;
  }
}

TEST_F(Framework, UpdateRequestsAnswerWithTheStatusOverTheWire) {
  Json::Value answer = Ask("Framework.UpdatekitResult", R"({"resultCode":"907135010"})");
  EXPECT_EQ("907135009", Status(answer));
  EXPECT_EQ("tarncore update invoke success. ", answer["header"]["error_reason"].asString());
  EXPECT_EQ("907135008", Status(Ask("Framework.Updatekit", "{}", "5.2.0.1")));
  EXPECT_EQ("start 5.2.0.1", services.Calls().back());
  EXPECT_EQ("0", Status(Ask("Framework.ShowServiceDialog", R"({"dialogType":"x"})")));
  EXPECT_EQ("907135000", Status(Ask("Framework.ShowServiceDialog", R"({"dialogType":""})")));
}

TEST_F(Framework, ForceUpdateSaysTwoOnlyWhenANewerVersionExists) {
  auto package = std::make_shared<PackageInfo>();
  package->packageName = "com.p";
  package->forceUpdate = "2";
  package->subKits = std::make_shared<SubKitConfigList>();
  auto kit = std::make_shared<SubKitConfig>();
  kit->kitName = "K";
  package->subKits->push_back(kit);
  config.remoteConfig.packageInfoList->push_back(package);

  auto flag = [&](const std::string& body) {
    return Ask("Framework.GetForceUpdate", body)["body"]["forceUpdate"].asString();
  };
  EXPECT_EQ("0", flag(R"({"reqKitName":"K"})"));
  EXPECT_TRUE(log.Has(Level::Error, "forceUpdate is 2, but there is not new version.(ForceUpdateKitReqHandler::Excute)"));
  services.newVersion = true;
  EXPECT_EQ("2", flag(R"({"reqKitName":"K"})"));
  EXPECT_EQ("0", flag(R"({"reqKitName":"Other"})"));
  services.Clear();
  EXPECT_EQ("0", flag("{}"));
  EXPECT_TRUE(services.Calls().empty());
  EXPECT_TRUE(log.Has(Level::Error, "message error, kitName is null.(ForceUpdateKitReqHandler::Excute)"));
  EXPECT_TRUE(log.Has(Level::Info, "GetForceUpdateFlag kitName =  forceUpdateMsg = 0(ForceUpdateKitReqHandler::Excute)"));
}

TEST_F(Framework, CheckPermissionAsksTheScopeServiceOnlyWithBothFields) {
  auto result = [&](const std::string& body) {
    Json::Value answer = Ask("Framework.CheckPermission", body);
    EXPECT_EQ("0", Status(answer));
    EXPECT_EQ("", answer["body"]["checkPermission"].asString());
    return answer["body"]["checkPermissionResult"].asString();
  };
  EXPECT_EQ("1", result(R"({"reqPermission":"p","reqClinetid":"app"})"));
  ASSERT_EQ(1, scope.native->Calls());
  scope.native->allowed = false;
  EXPECT_EQ("0", result(R"({"reqPermission":"p","reqClinetid":"app"})"));
  EXPECT_EQ(2, scope.native->Calls());

  EXPECT_EQ("0", result(R"({"reqPermission":"x"})"));
  EXPECT_TRUE(log.Contains("convertReqMess data format reqClinetid error."));
  EXPECT_EQ("0", result(R"({"reqClinetid":"","reqPermission":"x"})"));
  EXPECT_TRUE(log.Has(Level::Error, "message error, permission or clientid is null.(CheckPermissionReqHandler::Excute)"));
  EXPECT_EQ("0", result(R"({"n":{"reqPermission":"x","reqClinetid":"app"}})"));
  EXPECT_EQ("0", result("\"text\""));
  EXPECT_EQ(2, scope.native->Calls());
}

TEST_F(Framework, CheckPermissionListKeepsOrderAndDuplicates) {
  Json::Value answer = Ask("Framework.CheckPermissionList",
      R"({"reqClinetid":"app","permissions":[{"permission":"b"},{"permission":"a"},{"permission":"b"}]})");
  EXPECT_EQ("0", Status(answer));
  const Json::Value& list = answer["body"]["checkPermissions"];
  ASSERT_EQ(3u, list.size());
  EXPECT_EQ("b", list[0]["permission"].asString());
  EXPECT_EQ("a", list[1]["permission"].asString());
  EXPECT_EQ("b", list[2]["permission"].asString());
  EXPECT_EQ("1", list[2]["checkPermissionResult"].asString());
  EXPECT_EQ(3, scope.native->Calls());

  answer = Ask("Framework.CheckPermissionList",
               R"({"reqClinetid":"","permissions":[{"permission":"a"},{"permission":"b"}]})");
  ASSERT_EQ(2u, answer["body"]["checkPermissions"].size());
  EXPECT_EQ("", answer["body"]["checkPermissions"][1]["checkPermissionResult"].asString());
  EXPECT_TRUE(log.Contains("message error, permissionList size is 0 or clientid is null. clientid="));
  for (const char* body : {R"({"reqClinetid":"app"})", R"({"reqClinetid":"app","permissions":"p"})"}) {
    answer = Ask("Framework.CheckPermissionList", body);
    EXPECT_EQ("0", Status(answer));
    EXPECT_TRUE(answer["body"].isObject() && answer["body"].empty()) << body;
  }
  EXPECT_EQ(3, scope.native->Calls());
}

TEST_F(Framework, VerifyMessageAnswersTrueWhateverTheBody) {
  for (const char* body : {"{}", "\"text\"", "[1,2]"}) {
    Json::Value answer = Ask("Framework.VerifyMessage", body);
    EXPECT_EQ("0", Status(answer)) << body;
    EXPECT_TRUE(answer["body"]["returnCode"].isBool() && answer["body"]["returnCode"].asBool()) << body;
  }
}

TEST_F(Framework, SetRegValueWritesOnlyTheFourSwitchesIntoAnExistingKey) {
  struct Case {
    std::string body;
    std::string status;
    std::string name;
    std::string stored;
  };
  const std::vector<Case> cases = {
      {R"({"key":"AutoUpgrade","value":"true"})", "0", "AutoUpgrade", "true"},
      {R"({"key":"ShareAnalysis","value":""})", "0", "ShareAnalysis", ""},
      {R"({"key":"PrivacyAgree","value":"1"})", "0", "PrivacyAgree", "64000000"},
      {R"({"key":"AutoUpgrade","value":true})", "907135000", "", ""},
      {R"({"key":"Install_Path","value":"x"})", "907135000", "Install_Path", "(absent)"},
      {R"({"key":"autoupgrade","value":"x"})", "907135000", "autoupgrade", "(absent)"},
      {R"({"n":{"key":"AutoUpgrade"},"value":"x"})", "907135000", "", ""},
  };
  for (const Case& c : cases) {
    Json::Value answer = Ask("Framework.SetRegValue", c.body);
    EXPECT_EQ(c.status, Status(answer)) << c.body;
    EXPECT_EQ(c.status == "0", answer["body"]["returnCode"].asBool()) << c.body;
    EXPECT_EQ(c.stored, c.name.empty() ? c.stored : Registry(c.name)) << c.body;
  }
  EXPECT_TRUE(log.Has(Level::Info, "Set reg key = PrivacyAgree ,value = 64000000(RegSettingReqHandler::Excute)"));

  EXPECT_EQ("0", Status(Ask("Framework.SetRegValue", R"({"key":"PrivacyNotice","value":"yes"})")));
  EXPECT_EQ("yes", Registry("PrivacyNotice"));
  EXPECT_EQ("64000000", Registry("PrivacyAgree"));
  EXPECT_TRUE(log.Has(Level::Info, "Success Set PrivacyAgree with value=64000000(RegSettingReqHandler::Excute)"));

  // The key is never created here: without it the write fails and says so.
  std::filesystem::remove_all(root.At(kVtid));
  Json::Value answer = Ask("Framework.SetRegValue", R"({"key":"PrivacyNotice","value":"1"})");
  EXPECT_EQ("0", Status(answer));
  EXPECT_TRUE(answer["body"]["returnCode"].isBool());
  EXPECT_FALSE(answer["body"]["returnCode"].asBool());
  EXPECT_TRUE(log.Has(Level::Info, "Failed to Set PrivacyAgree with value=64000000(RegSettingReqHandler::Excute)"));
}

TEST_F(Framework, EdrRequestResolvesThroughTheAddressBook) {
  Json::Value answer = Ask("Framework.EDRRequest", R"({"serviceName":"known","key":"ROOT"})");
  EXPECT_EQ("0", Status(answer));
  EXPECT_EQ("https://known.example/ROOT", answer["body"]["url"].asString());
  EXPECT_EQ("known", answer["body"]["serviceName"].asString());
  EXPECT_EQ("ROOT", answer["body"]["key"].asString());

  answer = Ask("Framework.EDRRequest", R"({"serviceName":"other","key":"ROOT"})");
  EXPECT_EQ("907135015", Status(answer));
  EXPECT_EQ("EDR query failed. ", answer["header"]["error_reason"].asString());
  services.Clear();
  for (const char* body : {R"({"serviceName":"","key":"ROOT"})", R"({"n":{"serviceName":"known"},"key":"k"})",
                           R"({"serviceName":"known"})"}) {
    EXPECT_EQ("907135000", Status(Ask("Framework.EDRRequest", body))) << body;
  }
  EXPECT_TRUE(services.Calls().empty());
}

TEST_F(Framework, ReportsFromClients) {
  EXPECT_EQ("0", Status(Ask("Framework.EVReport", R"({"EVReports":[]})")));
  EXPECT_EQ(std::vector<std::string>{"queue"}, services.Calls());
  services.Clear();
  Json::Value answer = Ask("Framework.NoticeEvReport", R"({"type":"TARNCORE_NOTICE_UI","data":"a|b"})");
  EXPECT_EQ("0", Status(answer));
  EXPECT_TRUE(answer["body"]["returnCode"].asBool());
  for (const char* body : {R"({"type":"OTHER","data":"a"})", R"({"type":"TARNCORE_NOTICE_UI","data":""})",
                           R"({"type":"TARNCORE_NOTICE_UI","data":1})", "{}"}) {
    EXPECT_EQ("907135000", Status(Ask("Framework.NoticeEvReport", body))) << body;
  }
  EXPECT_EQ(std::vector<std::string>{"file a|b"}, services.Calls());
}

}  // namespace

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
#include "pipeline/pipeline_fakes.h"
#include "platform/os/registry.h"

namespace {

using tarn::log::Level;
using tarn::test::kVtid;

// Records each call into the services, in order, as one short word; Calls() joins them with ";".
class RecordingServices : public tarn::framework::FrameworkServices {
 public:
  bool StartSelfUpdate(ResponseStatus& status, const std::string& sdkVersion) override {
    Add("start " + sdkVersion);
    SetResponseStatus(status, TarnStatus::kNoNewVersion);
    return false;
  }
  void CompleteUpdate() override { Add("complete"); }
  bool ShowScrollAndUpdate() override { return Add("scroll"); }
  bool HasNewVersion() override { return Add("hasNew") && newVersion; }
  void SendUserConfirmBroadcast(int agree) override { Add("confirm " + std::to_string(agree)); }
  void SendServiceStartBroadcast() override { Add("serviceStart"); }
  void SendUpdateFailedBroadcast(const std::string& result) override { Add("failed " + result); }
  bool InitKitsForUpdate() override { return Add("initKits"); }
  void QueueClientReport(const std::string&) override { Add("queue"); }
  void ReportToFile(const std::string& data) override { Add("file " + data); }
  bool GetServiceUrl(const std::string& name, std::string& url, const std::string& key) override {
    Add("url " + name + " " + key);
    url = "https://known.example/" + key;
    return name == "known";
  }

  std::string Calls() {
    std::lock_guard lock(mutex);
    std::string joined;
    for (const auto& call : calls) joined += (joined.empty() ? "" : ";") + call;
    calls.clear();
    return joined;
  }
  bool newVersion = false;

 private:
  bool Add(const std::string& call) {
    std::lock_guard lock(mutex);
    calls.push_back(call);
    return true;
  }
  std::mutex mutex;
  std::vector<std::string> calls;
};

class KitManagerGates : public DefaultRequestGates {
 public:
  void Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* callback,
              ResponseStatus& status) override {
    KitManagerApi::GetInstance().Invoke(header, request, callback, status);
  }
};

class Framework : public tarn::test::EndpointTest {
 protected:
  void SetUp() override {
    config.ResetForTesting();
    root_.MakeDir(kVtid);
    tarn::framework::SetFrameworkServices(&services);
    tarn::kit::SetKitRuntimeHooks(&hooks);
    scope.native = std::make_shared<access_test::FakeScopeObject>();
    proxy = std::make_unique<ScopeProxy>(scope.Make());
    ScopeProxy::SetInstanceForTesting(proxy.get());
    hooks.RegisterFrameworkHandlers();
    StartEndpoint(&gates);
    SignatureManager::GetInstance()->AddSignatureWhiteList(static_cast<uint32_t>(::getpid()), "c1");
  }
  void TearDown() override {
    EndpointTest::TearDown();
    ScopeProxy::SetInstanceForTesting(nullptr);
    tarn::kit::SetKitRuntimeHooks(nullptr);
    tarn::framework::SetFrameworkServices(nullptr);
    FrameworkKitAPI::GetInstance().ClearForTesting();
    config.ResetForTesting();
  }

  // Sends one request and gives the answer, or a null value when none came.
  Json::Value Ask(const std::string& uri, const std::string& body, const std::string& sdk = "5.3.0.300") {
    Json::Value answer;
    Status(++nextId, tarn::test::Request(uri, body, sdk), &answer);
    return answer;
  }
  static std::string Code(const Json::Value& answer) { return answer["header"]["status_code"].asString(); }
  static std::string Registry(const std::string& name) {
    std::string value = "(absent)";
    ReadVtidRegistryValue(name, value);
    return value;
  }

  ConfigManager& config = ConfigManager::GetInstance();
  RecordingServices services;
  tarn::framework::FrameworkKitHooks hooks;
  access_test::FakePlatform scope;
  std::unique_ptr<ScopeProxy> proxy;
  KitManagerGates gates;
  int32_t nextId = 100;
};

TEST_F(Framework, AnswersAndServiceCallsOverTheWire) {
  // Kit K's package is condemned with "2".
  auto package = std::make_shared<PackageInfo>();
  package->forceUpdate = "2";
  package->subKits = std::make_shared<SubKitConfigList>(1, std::make_shared<SubKitConfig>());
  package->subKits->front()->kitName = "K";
  config.remoteConfig.packageInfoList->push_back(package);
  services.newVersion = true;

  struct Case {
    const char* api;  // after "Framework."
    const char* body;
    const char* status;
    const char* calls;   // the services' calls, joined with ";"
    const char* answer;  // the answer's body, or nullptr when not looked at
  } cases[] = {
      // Reaching the handler means every gate passed: that is the answer, whatever the body.
      {"VerifyMessage", "{}", "0", "", R"({"returnCode":true})"},
      {"VerifyMessage", "\"text\"", "0", "", R"({"returnCode":true})"},
      // The update UI's result, branched by its code.
      {"UpdatekitResult", "{}", "907135000", "complete", nullptr},
      {"UpdatekitResult", R"({"resultCode":""})", "907135000", "complete", nullptr},
      {"UpdatekitResult", R"({"resultCode":"907135010"})", "907135009", "confirm 2;complete", nullptr},
      {"UpdatekitResult", R"({"resultCode":"907135014"})", "907135009", "confirm 1;scroll", nullptr},
      {"UpdatekitResult", R"({"resultCode":"907135007","updateKitName":"k"})", "907135009",
       "failed 907135007;serviceStart;complete", nullptr},
      {"UpdatekitResult", R"({"resultCode":"907135007"})", "907135000", "failed 907135007;complete", nullptr},
      {"UpdatekitResult", R"({"resultCode":"0","updateKitName":"k"})", "907135009", "initKits;serviceStart;complete",
       nullptr},
      {"UpdatekitResult", R"({"resultCode":"0"})", "907135000", "complete", nullptr},
      {"UpdatekitResult", R"({"resultCode":"5","updateKitName":"k"})", "907135009", "serviceStart;complete", nullptr},
      {"ShowServiceDialog", R"({"dialogType":"x"})", "0", "", "{}"},
      {"ShowServiceDialog", R"({"dialogType":""})", "907135000", "", nullptr},
      {"EDRRequest", R"({"serviceName":"known","key":"ROOT"})", "0", "url known ROOT",
       R"({"serviceName":"known","url":"https://known.example/ROOT","key":"ROOT"})"},
      {"EDRRequest", R"({"serviceName":"other","key":"ROOT"})", "907135015", "url other ROOT", nullptr},
      {"EDRRequest", R"({"serviceName":"","key":"ROOT"})", "907135000", "", nullptr},
      {"EDRRequest", R"({"n":{"serviceName":"known"},"key":"k"})", "907135000", "", nullptr},
      {"EDRRequest", R"({"serviceName":"known"})", "907135000", "", nullptr},
      {"EVReport", R"({"EVReports":[]})", "0", "queue", "{}"},
      // "2" only when a newer version exists, which is asked only then.
      {"GetForceUpdate", R"({"reqKitName":"K"})", "0", "hasNew", R"({"forceUpdate":"2"})"},
      {"GetForceUpdate", R"({"reqKitName":"Other"})", "0", "", R"({"forceUpdate":"0"})"},
      {"GetForceUpdate", "{}", "0", "", R"({"forceUpdate":"0"})"},
      // A malformed permission question gets a success header and "not granted";
      // only a question with both fields reaches the scope service.
      {"CheckPermission", R"({"reqPermission":"p","reqClinetid":"app"})", "0", "",
       R"({"checkPermission":"","checkPermissionResult":"1"})"},
      {"CheckPermission", R"({"reqPermission":"x"})", "0", "", R"({"checkPermission":"","checkPermissionResult":"0"})"},
      {"CheckPermission", R"({"reqClinetid":"","reqPermission":"x"})", "0", "",
       R"({"checkPermission":"","checkPermissionResult":"0"})"},
      {"CheckPermission", R"({"n":{"reqPermission":"x","reqClinetid":"app"}})", "0", "",
       R"({"checkPermission":"","checkPermissionResult":"0"})"},
      {"CheckPermission", "\"text\"", "0", "", R"({"checkPermission":"","checkPermissionResult":"0"})"},
      // Members of the wrong JSON type are malformed too, not left unanswered.
      {"CheckPermission", R"([{"reqPermission":"x","reqClinetid":"app"}])", "0", "",
       R"({"checkPermission":"","checkPermissionResult":"0"})"},
      {"CheckPermission", R"({"reqPermission":{"x":1},"reqClinetid":"app"})", "0", "",
       R"({"checkPermission":"","checkPermissionResult":"0"})"},
      // Each element is asked in its turn, duplicates too; without a client id none is.
      {"CheckPermissionList", R"({"reqClinetid":"app","permissions":[{"permission":"b"},{"permission":"a"},{"permission":"b"}]})",
       "0", "", R"({"checkPermissions":[{"permission":"b","checkPermissionResult":"1"},
                 {"permission":"a","checkPermissionResult":"1"},{"permission":"b","checkPermissionResult":"1"}]})"},
      {"CheckPermissionList", R"({"reqClinetid":"","permissions":[{"permission":"a"}]})", "0", "",
       R"({"checkPermissions":[{"permission":"a","checkPermissionResult":""}]})"},
      {"CheckPermissionList", R"({"reqClinetid":"app"})", "0", "", "{}"},
      {"CheckPermissionList", R"({"reqClinetid":"app","permissions":"p"})", "0", "", "{}"},
      {"CheckPermissionList", R"({"reqClinetid":"app","permissions":["a"]})", "0", "", "{}"},
      {"CheckPermissionList", R"({"reqClinetid":"app","permissions":{"x":{"permission":"a"}}})", "0", "", "{}"},
      // Notice records go to the file whether or not sharing is on.
      {"NoticeEvReport", R"({"type":"TARNCORE_NOTICE_UI","data":"a|b"})", "0", "file a|b", R"({"returnCode":true})"},
      {"NoticeEvReport", R"({"type":"OTHER","data":"a"})", "907135000", "", nullptr},
      {"NoticeEvReport", R"({"type":"TARNCORE_NOTICE_UI","data":""})", "907135000", "", nullptr},
      {"NoticeEvReport", R"({"type":"TARNCORE_NOTICE_UI","data":1})", "907135000", "", nullptr},
      {"NoticeEvReport", "{}", "907135000", "", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.api) + " " + c.body);
    Json::Value answer = Ask(std::string("Framework.") + c.api, c.body);
    EXPECT_EQ(c.status, Code(answer));
    EXPECT_EQ(c.status, answer["header"]["error_code"].asString());
    EXPECT_EQ(c.calls, services.Calls());
    if (c.answer) {
      EXPECT_EQ(tarn::test::ParseJson(c.answer), answer["body"]);
    }
  }
  EXPECT_EQ(4, scope.native->Calls());
  EXPECT_TRUE(logs_.Contains("convertReqMess data format reqClinetid error."));
  EXPECT_TRUE(logs_.Has(Level::Error, "message error, permission or clientid is null.(CheckPermissionReqHandler::Excute)"));
  EXPECT_TRUE(logs_.Contains("message error, permissionList size is 0 or clientid is null. clientid="));
  EXPECT_TRUE(logs_.Has(Level::Error, "message error, kitName is null.(ForceUpdateKitReqHandler::Excute)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "GetForceUpdateFlag kitName =  forceUpdateMsg = 0(ForceUpdateKitReqHandler::Excute)"));

  scope.native->allowed = false;
  EXPECT_EQ("0", Ask("Framework.CheckPermission", R"({"reqPermission":"p","reqClinetid":"app"})")["body"]["checkPermissionResult"].asString());
  services.newVersion = false;
  EXPECT_EQ("0", Ask("Framework.GetForceUpdate", R"({"reqKitName":"K"})")["body"]["forceUpdate"].asString());
  EXPECT_TRUE(logs_.Has(Level::Error, "forceUpdate is 2, but there is not new version.(ForceUpdateKitReqHandler::Excute)"));
  EXPECT_EQ("hasNew", services.Calls());

  // The client's sdk version reaches the update switch.
  EXPECT_EQ("907135008", Code(Ask("Framework.Updatekit", "{}", "5.2.0.1")));
  EXPECT_EQ("start 5.2.0.1", services.Calls());
  // The api look-up folds case, and the handler is found by the record's own
  // uri: a request in another case reaches the same handler.
  EXPECT_EQ("907135008", Code(Ask("Framework.UpdateKit", "{}", "5.2.0.1")));
  EXPECT_EQ("start 5.2.0.1", services.Calls());

  // An unknown uri is only logged: the status stays "0", so no answer goes out.
  ResponseStatus status;
  EXPECT_TRUE(FrameworkKitAPI::GetInstance().Invoke("Framework.Nothing", nullptr, ConvertedRequest{}, status));
  EXPECT_EQ("0", status.status_code);
  EXPECT_TRUE(logs_.Has(Level::Error, "uri: Framework.Nothing is not supported(FrameworkKitAPI::Invoke)"));
}

// A member that is not a text, or one named only deeper in the body, throws
// to the kit manager's catch.
TEST_F(Framework, MistypedUpdateResultThrows) {
  UpdateKitResultReqHandler handler;
  for (const char* body : {R"({"resultCode":5})", R"({"x":{"updateKitName":"k"},"resultCode":"0"})"}) {
    ConvertedRequest request;
    request.body = body;
    ResponseStatus status;
    EXPECT_THROW(handler.Excute("Framework.UpdatekitResult", nullptr, request, status), Json::LogicError) << body;
  }
}

TEST_F(Framework, SetRegValueWritesOnlyTheFourSwitchesIntoAnExistingKey) {
  struct Case {
    std::string body;
    std::string status;
    std::string name;  // the value to look at afterwards, if any
    std::string stored;
  };
  const std::vector<Case> cases = {
      {R"({"key":"AutoUpgrade","value":"true"})", "0", "AutoUpgrade", "true"},
      {R"({"key":"ShareAnalysis","value":""})", "0", "ShareAnalysis", ""},
      {R"({"key":"PrivacyAgree","value":"1"})", "0", "PrivacyAgree", "64000000"},  // only the current version
      {R"({"key":"AutoUpgrade","value":true})", "907135000", "", ""},
      {R"({"key":"Install_Path","value":"x"})", "907135000", "Install_Path", "(absent)"},
      {R"({"key":"autoupgrade","value":"x"})", "907135000", "autoupgrade", "(absent)"},
      {R"({"n":{"key":"AutoUpgrade"},"value":"x"})", "907135000", "", ""},
  };
  for (const Case& c : cases) {
    Json::Value answer = Ask("Framework.SetRegValue", c.body);
    EXPECT_EQ(c.status, Code(answer)) << c.body;
    EXPECT_EQ(c.status == "0", answer["body"]["returnCode"].asBool()) << c.body;
    if (!c.name.empty()) {
      EXPECT_EQ(c.stored, Registry(c.name)) << c.body;
    }
  }
  EXPECT_TRUE(logs_.Has(Level::Info, "Set reg key = PrivacyAgree ,value = 64000000(RegSettingReqHandler::Excute)"));

  // Answering the notice is also the agreement at the current version.
  ASSERT_TRUE(std::filesystem::remove(root_.At(kVtid + "PrivacyAgree")));
  EXPECT_EQ("0", Code(Ask("Framework.SetRegValue", R"({"key":"PrivacyNotice","value":"yes"})")));
  EXPECT_EQ("yes", Registry("PrivacyNotice"));
  EXPECT_EQ("64000000", Registry("PrivacyAgree"));
  EXPECT_TRUE(logs_.Has(Level::Info, "Success Set PrivacyAgree with value=64000000(RegSettingReqHandler::Excute)"));

  // The key is never created here: without it the write fails and says so.
  std::filesystem::remove_all(root_.At(kVtid));
  Json::Value answer = Ask("Framework.SetRegValue", R"({"key":"PrivacyNotice","value":"1"})");
  EXPECT_EQ("0", Code(answer));
  EXPECT_EQ(Json::Value(false), answer["body"]["returnCode"]);
  EXPECT_TRUE(logs_.Has(Level::Info, "Failed to Set PrivacyAgree with value=64000000(RegSettingReqHandler::Excute)"));
}

}  // namespace

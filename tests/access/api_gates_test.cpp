// Who the caller is (core program, fingerprint, maker signature) and whether
// the api is granted: the gates over a scripted scope service and verifier.
#include "access/api_gates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <tuple>

#include "access/scope_proxy.h"
#include "access/scope_util.h"
#include "fake_scope.h"
#include "platform/log/log_capture.h"
#include "platform/os/places.h"
#include "platform/security/security.h"
#include "support/temp_root.h"

namespace {

using access_test::FakePlatform;
using access_test::FakeScopeObject;
using tarn::access::KitApiGates;
using tarn::log::Level;
using ::testing::UnorderedElementsAre;

std::string InstallFolder() {
  std::string dir = tarn::os::InstallDirectory();
  dir.pop_back();
  return dir;
}

std::string Cased(std::string text, int (*to)(int)) {
  for (auto& c : text) c = static_cast<char>(to(static_cast<unsigned char>(c)));
  return text;
}

class FakeVerifier : public SignatureVerifyer {
 public:
  int ProcessGetFileThumb(uint32_t processId, std::string& out) override {
    askedPid = processId;
    if (path.empty()) return 0;
    out = "THUMB-OF-" + path;
    return 1;
  }
  int VerifyVantrelExe(uint32_t) override {
    ++makerChecks;
    return makerSigned ? 0 : 5;
  }
  int GetAndVerifyTarnCoreExePath(uint32_t processId, std::string& out) override {
    ++coreChecks;
    askedPid = processId;
    if (verified || fillOnFailure) out = path;
    return verified ? 0 : 3;
  }
  std::string path = "/opt/client/app";
  bool verified = true, fillOnFailure = false, makerSigned = false;
  int makerChecks = 0, coreChecks = 0;
  uint32_t askedPid = 0;
};

class GatesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.wasm = service_;
    proxy_ = std::make_unique<ScopeProxy>(platform_.Make());
    ScopeProxy::SetInstanceForTesting(proxy_.get());
    SignatureVerifyer::SetInstanceForTesting(&verifier_);
  }
  void TearDown() override {
    ScopeProxy::SetInstanceForTesting(nullptr);
    SignatureVerifyer::SetInstanceForTesting(nullptr);
  }

  bool PermissionGate(bool core, KitApiGates::ApiPermissionInfo info) {
    return KitApiGates::CheckApiPermission(core, "Demo.Echo", header_, [&] {
      ++lookups_;
      return info;
    }, status_);
  }
  std::vector<std::string> AskedAppIds(uint32_t code) {
    std::vector<std::string> ids;
    for (auto& r : service_->Requests())
      if (r.code == code) ids.push_back(r.fields[1].at(0));
    return ids;
  }

  std::shared_ptr<FakeScopeObject> service_ = std::make_shared<FakeScopeObject>();
  FakePlatform platform_;
  std::unique_ptr<ScopeProxy> proxy_;
  FakeVerifier verifier_;
  RequestHeader header_;
  ResponseStatus status_;
  int lookups_ = 0;
  tarn::log::LogCapture log_;
};

TEST_F(GatesTest, TheCoreIsTheCoreClientIdFromAVerifiedProgramOfTheInstallationFolder) {
  verifier_.path = InstallFolder() + "/TarnCoreUI";
  header_.client_id = "204518762 ";
  EXPECT_FALSE(KitApiGates::IsTarnCorerequest(1, header_));
  EXPECT_EQ(verifier_.coreChecks, 0);
  header_.client_id = tarn::access::kCoreClientId;
  EXPECT_TRUE(KitApiGates::IsTarnCorerequest(77, header_));
  EXPECT_EQ(verifier_.askedPid, 77u);

  verifier_.verified = false;
  verifier_.path.clear();
  EXPECT_FALSE(KitApiGates::IsTarnCorerequest(12, header_));
  EXPECT_TRUE(log_.Has(Level::Error, "VerifyTarnCoreExePath failed, modulesExePath is null.(KitManagerApi::IsTarnCorerequest)"));
  EXPECT_TRUE(log_.Has(Level::Error, "GetAndVerifyTarnCoreExePath failed, pid = 12(KitManagerApi::IsTarnCorerequest)"));
  log_.Clear();
  verifier_.fillOnFailure = true;
  verifier_.path = InstallFolder() + "/x";
  EXPECT_FALSE(KitApiGates::IsTarnCorerequest(12, header_));
  EXPECT_FALSE(log_.Contains("modulesExePath is null"));
  EXPECT_TRUE(log_.Has(Level::Error, "GetAndVerifyTarnCoreExePath failed, pid = 12(KitManagerApi::IsTarnCorerequest)"));

  // The folder is matched in any case, anywhere in the path.
  EXPECT_TRUE(KitApiGates::CheckIsInstallationPath(Cased(InstallFolder() + "/sub/TarnCoreUI", ::toupper)));
  EXPECT_TRUE(KitApiGates::CheckIsInstallationPath("/chroot" + InstallFolder() + "2/x"));
  verifier_.verified = true;
  verifier_.path = "/usr/bin/impostor";
  EXPECT_FALSE(KitApiGates::IsTarnCorerequest(3, header_));
  EXPECT_TRUE(log_.Has(Level::Info, "Path Mismatch, sProgPath = " + Cased(InstallFolder(), ::tolower) +
                                        " modulesExePath = /usr/bin/impostor(KitManagerApi::CheckIsInstallationPath)"));
}

TEST_F(GatesTest, TheScopeServiceDecidesApiPermissionsButForCoreRequestsAndApisWithoutOne) {
  header_.client_id = "client-1";
  EXPECT_TRUE(PermissionGate(true, {"", "", ""}));
  EXPECT_EQ(lookups_, 0);
  EXPECT_TRUE(log_.Has(Level::Info, "TarnCore request, no need check API permission.(KitManagerApi::CheckApiPermission)"));
  EXPECT_TRUE(PermissionGate(false, {"Echo", "", ""}));
  EXPECT_TRUE(PermissionGate(false, {"Echo", tarn::access::kNoPermissionNeeded, ""}));
  EXPECT_EQ(log_.Count(Level::Debug, "no need to check permission.(KitManagerApi::CheckApiPermission)"), 2u);
  EXPECT_EQ(status_.status_code, "0");
  EXPECT_FALSE(PermissionGate(false, {"", "perm", ""}));  // unknown api
  EXPECT_EQ(std::tuple(status_.status_code, status_.error_code, status_.error_reason),
            std::tuple("907135001", "907135001", "API is not supported. "));
  EXPECT_TRUE(log_.Has(Level::Error, "uri is not supported. uri = Demo.Echo(KitManagerApi::CheckApiPermission)"));
  EXPECT_EQ(service_->Calls(), 0);

  EXPECT_TRUE(PermissionGate(false, {"Echo", "demo.perm", "https://scope"}));
  auto request = service_->Requests().at(0);
  EXPECT_EQ(request.code, 2u);
  EXPECT_EQ(request.fields, (std::map<uint32_t, std::vector<std::string>>{
                                {1, {"client-1"}}, {2, {"demo.perm"}}, {3, {"https://scope"}}}));
  service_->allowed = false;
  EXPECT_FALSE(PermissionGate(false, {"Echo", "demo.perm", ""}));
  EXPECT_EQ(std::tuple(status_.status_code, status_.error_reason), std::tuple("907135004", "API is illegal. "));
  EXPECT_TRUE(log_.Has(Level::Error, "CheckApiPermission. Failed!(KitManagerApi::CheckApiPermission)"));
}

TEST_F(GatesTest, AClientsFingerprintIsJudgedByTheScopeService) {
  service_->fingerprintCodes = {1000};
  EXPECT_EQ(ScopeUtil::CheckCertFingerprint("client-7", 4321, "tx", "com.pkg", "Demo.Echo"), 1000);
  EXPECT_EQ(verifier_.askedPid, 4321u);
  auto requests = service_->Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].fields[1].at(0), "client-7");
  EXPECT_EQ(requests[0].fields[2].at(0), "THUMB-OF-/opt/client/app");
  EXPECT_TRUE(log_.Has(Level::Info,
                       "checkCertFingerprint, clientId:client-7, pid:4321, url is: Demo.Echo(ScopeUtil::CheckCertFingerprint)"));
  EXPECT_TRUE(log_.Has(Level::Info, "scope proxy check certFingerprint result 1000(ScopeUtil::CheckCertFingerprint)"));
  EXPECT_EQ(verifier_.makerChecks, 0);

  // A process that can't be read is judged with an empty fingerprint.
  verifier_.path.clear();
  service_->fingerprintCodes = {1};
  EXPECT_EQ(ScopeUtil::CheckCertFingerprint("client-7", 99, "", "", "X.Y"), 1);
  ASSERT_EQ(service_->Requests().size(), 2u);
  EXPECT_EQ(service_->Requests()[1].fields[2].at(0), "");
  EXPECT_TRUE(std::ranges::any_of(log_.Records(), [](const auto& r) {
    return r.level == Level::Error && r.tag == "SIGN" &&
           r.text == "ProcessGetPeFilePath failed, return empty thumb.(ScopeUtil::CalcProcessExe)";
  }));
}

TEST_F(GatesTest, WithoutAClientIdOnlyTheAccountRequestOfAMakerSignedProgramPasses) {
  verifier_.makerSigned = true;
  EXPECT_EQ(ScopeUtil::CheckCertFingerprint("", 5, "", "com.other", "Account.Request"), 0);
  // Everything else fails unchecked; the framework's own package too, whatever the literal says.
  for (const char* api : {"account.request", "Account.Request ", "Demo.Echo", ""}) {
    EXPECT_EQ(ScopeUtil::CheckCertFingerprint("", 5, "", "com.other", api), -1) << api;
  }
  EXPECT_EQ(ScopeUtil::CheckCertFingerprint("", 5, "", "com.vantrel.framework", "Account.Request"), -1);
  EXPECT_EQ(log_.Count(Level::Error,
                       "Check failed, must be Account.Request or com.vantrel.framework(ScopeUtil::CheckCertFingerprint)"),
            5u);
  verifier_.makerSigned = false;
  EXPECT_EQ(ScopeUtil::CheckCertFingerprint("", 5, "", "com.other", "Account.Request"), -1);
  EXPECT_EQ(verifier_.makerChecks, 2);
  EXPECT_TRUE(service_->Requests().empty());
}

TEST_F(GatesTest, TheCacheRefreshOpensTheGatewayForEachCachedClient) {
  tarn::test::TempRoot root;
  ScopeUtil::RefreshScopeCache();
  EXPECT_TRUE(log_.Has(Level::Info, "Failed to find first file!(ScopeUtil::ListFiles)"));
  EXPECT_TRUE(AskedAppIds(6).empty());

  const std::string cache = "var/lib/Vantrel/TARNCORE/cache/";
  for (auto [name, content] : std::initializer_list<std::pair<const char*, const char*>>{
           {"104.json", "12345"}, {"a.b.c", ""}, {"plain", "xy"}, {".hidden", ""}})
    root.WriteFile(cache + name, content);
  root.MakeDir(cache + "folder.d");
  ScopeUtil::RefreshScopeCache();
  EXPECT_THAT(AskedAppIds(6), UnorderedElementsAre("104", "a", "plain", ""));
  EXPECT_TRUE(log_.Has(Level::Info, "refresh 104.json5 bytes(ScopeUtil::ListFiles)"));
  EXPECT_TRUE(log_.Has(Level::Info, "104.json(ScopeUtil::ListFiles)"));
  EXPECT_FALSE(log_.Contains("folder.d"));
  ScopeUtil::ListFiles(root.At(cache) + "*.json");  // the pattern selects
  EXPECT_THAT(AskedAppIds(6), UnorderedElementsAre("104", "a", "plain", "", "104"));
}

}  // namespace

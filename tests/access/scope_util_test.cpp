#include "access/scope_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "access/scope_proxy.h"
#include "fake_scope.h"
#include "platform/log/log_capture.h"
#include "platform/os/text.h"
#include "platform/security/security.h"
#include "support/temp_root.h"

namespace {

using access_test::FakePlatform;
using access_test::FakeScopeObject;
using tarn::log::Level;
using ::testing::UnorderedElementsAre;

class FakeVerifier : public SignatureVerifyer {
 public:
  int ProcessGetPeFilePath(uint32_t processId, std::wstring& path) override {
    askedPid = processId;
    if (!hasPath) return 0;
    path = L"/opt/client/app";
    return 1;
  }
  int VerifyVantrelExe(uint32_t) override {
    ++makerChecks;
    return makerSigned ? 0 : 5;
  }
  bool hasPath = true;
  bool makerSigned = false;
  int makerChecks = 0;
  uint32_t askedPid = 0;
};

class FakeChecker : public tarn::security::FileSignatureChecker {
 public:
  std::string Thumb(const std::string& path) override { return "THUMB-OF-" + path; }
};

class ScopeUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.wasm = service_;
    proxy_ = std::make_unique<ScopeProxy>(platform_.Make());
    ScopeProxy::SetInstanceForTesting(proxy_.get());
    SignatureVerifyer::SetInstanceForTesting(&verifier_);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&checker_);
  }
  void TearDown() override {
    ScopeProxy::SetInstanceForTesting(nullptr);
    SignatureVerifyer::SetInstanceForTesting(nullptr);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
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
  FakeChecker checker_;
  tarn::log::LogCapture log_;
};

TEST_F(ScopeUtilTest, AClientsFingerprintIsJudgedByTheScopeService) {
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

  // A process without a path is judged with an empty fingerprint.
  verifier_.hasPath = false;
  service_->fingerprintCodes = {1};
  EXPECT_EQ(ScopeUtil::CheckCertFingerprint("client-7", 99, "", "", "X.Y"), 1);
  ASSERT_EQ(service_->Requests().size(), 2u);
  EXPECT_EQ(service_->Requests()[1].fields[2].at(0), "");
  bool signLine = false;
  for (const auto& r : log_.Records())
    signLine |= r.level == Level::Error && r.tag == "SIGN" &&
                r.text == "ProcessGetPeFilePath failed, return empty thumb.(ScopeUtil::CalcProcessExe)";
  EXPECT_TRUE(signLine);
}

TEST_F(ScopeUtilTest, WithoutAClientIdOnlyTheAccountRequestOfAMakerSignedProgramPasses) {
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

TEST_F(ScopeUtilTest, TheCacheRefreshOpensTheGatewayForEachCachedClient) {
  tarn::test::TempRoot root;
  ScopeUtil::RefreshScopeCache();
  EXPECT_TRUE(log_.Has(Level::Info, "Failed to find first file!(ScopeUtil::ListFiles)"));
  EXPECT_TRUE(AskedAppIds(6).empty());

  root.WriteFile("var/lib/Vantrel/TARNCORE/cache/104.json", "12345");
  root.WriteFile("var/lib/Vantrel/TARNCORE/cache/a.b.c", "");
  root.WriteFile("var/lib/Vantrel/TARNCORE/cache/plain", "xy");
  root.WriteFile("var/lib/Vantrel/TARNCORE/cache/.hidden", "");
  root.MakeDir("var/lib/Vantrel/TARNCORE/cache/folder.d");
  ScopeUtil::RefreshScopeCache();
  EXPECT_THAT(AskedAppIds(6), UnorderedElementsAre("104", "a", "plain", ""));
  EXPECT_TRUE(log_.Has(Level::Info, "refresh 104.json5 bytes(ScopeUtil::ListFiles)"));
  EXPECT_TRUE(log_.Has(Level::Info, "104.json(ScopeUtil::ListFiles)"));
  EXPECT_FALSE(log_.Contains("folder.d"));
  ScopeUtil::ListFiles(root.At("var/lib/Vantrel/TARNCORE/cache") + "/*.json");  // the pattern selects
  EXPECT_THAT(AskedAppIds(6), UnorderedElementsAre("104", "a", "plain", "", "104"));
}

}  // namespace

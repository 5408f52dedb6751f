#include "access/api_gates.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "access/scope_proxy.h"
#include "fake_scope.h"
#include "platform/log/log_capture.h"
#include "platform/os/places.h"
#include "platform/security/security.h"

namespace {

using access_test::FakePlatform;
using access_test::FakeScopeObject;
using tarn::access::KitApiGates;
using tarn::log::Level;

std::string InstallFolder() {
  std::string dir = tarn::os::InstallDirectory();
  dir.pop_back();
  return dir;
}

class PathVerifier : public SignatureVerifyer {
 public:
  int GetAndVerifyTarnCoreExePath(uint32_t processId, std::string& out) override {
    ++calls;
    askedPid = processId;
    if (!verified) {
      if (fillOnFailure) out = path;
      return 3;
    }
    out = path;
    return 0;
  }
  std::string path;
  bool verified = true;
  bool fillOnFailure = false;
  int calls = 0;
  uint32_t askedPid = 0;
};

class CoreRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SignatureVerifyer::SetInstanceForTesting(&verifier_);
    header_.client_id = tarn::access::kCoreClientId;
  }
  void TearDown() override { SignatureVerifyer::SetInstanceForTesting(nullptr); }
  PathVerifier verifier_;
  RequestHeader header_;
  tarn::log::LogCapture log_;
};

TEST_F(CoreRequestTest, OnlyTheCoreClientIdIsLookedAtAndAFailedTestRefuses) {
  verifier_.path = InstallFolder() + "/TarnCoreUI";
  header_.client_id = "204518762 ";
  EXPECT_FALSE(KitApiGates::IsTarnCorerequest(1, header_));
  EXPECT_EQ(verifier_.calls, 0);
  header_.client_id = "204518762";
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
}

TEST_F(CoreRequestTest, TheExecutableMustLieWithinTheInstallationFolder) {
  std::string upper = InstallFolder() + "/sub/TarnCoreUI";
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  EXPECT_TRUE(KitApiGates::CheckIsInstallationPath(upper));
  // A substring anywhere will do.
  EXPECT_TRUE(KitApiGates::CheckIsInstallationPath("/chroot" + InstallFolder() + "2/x"));
  verifier_.path = "/usr/bin/impostor";
  EXPECT_FALSE(KitApiGates::IsTarnCorerequest(3, header_));
  std::string lowered = InstallFolder();
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](unsigned char c) { return std::tolower(c); });
  EXPECT_TRUE(log_.Has(Level::Info, "Path Mismatch, sProgPath = " + lowered +
                                        " modulesExePath = /usr/bin/impostor(KitManagerApi::CheckIsInstallationPath)"));
}

class PermissionGateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.wasm = service_;
    proxy_ = std::make_unique<ScopeProxy>(platform_.Make());
    ScopeProxy::SetInstanceForTesting(proxy_.get());
    header_.client_id = "client-1";
  }
  void TearDown() override { ScopeProxy::SetInstanceForTesting(nullptr); }

  bool Gate(bool core, KitApiGates::ApiPermissionInfo info) {
    return KitApiGates::CheckApiPermission(
        core, "Demo.Echo", header_,
        [&] {
          ++lookups_;
          return info;
        },
        status_);
  }

  std::shared_ptr<FakeScopeObject> service_ = std::make_shared<FakeScopeObject>();
  FakePlatform platform_;
  std::unique_ptr<ScopeProxy> proxy_;
  RequestHeader header_;
  ResponseStatus status_;
  int lookups_ = 0;
  tarn::log::LogCapture log_;
};

TEST_F(PermissionGateTest, CoreRequestsAndApisWithoutPermissionPassUnasked) {
  EXPECT_TRUE(Gate(true, {"", "", ""}));
  EXPECT_EQ(lookups_, 0);
  EXPECT_TRUE(log_.Has(Level::Info, "TarnCore request, no need check API permission.(KitManagerApi::CheckApiPermission)"));
  EXPECT_TRUE(Gate(false, {"Echo", "", ""}));
  EXPECT_TRUE(Gate(false, {"Echo", tarn::access::kNoPermissionNeeded, ""}));
  EXPECT_EQ(service_->Calls(), 0);
  EXPECT_EQ(log_.Count(Level::Debug, "no need to check permission.(KitManagerApi::CheckApiPermission)"), 2u);
  EXPECT_EQ(status_.status_code, "0");

  EXPECT_FALSE(Gate(false, {"", "perm", ""}));  // unknown api
  EXPECT_EQ(status_.status_code, "907135001");
  EXPECT_EQ(status_.error_code, "907135001");
  EXPECT_EQ(status_.error_reason, "API is not supported. ");
  EXPECT_TRUE(log_.Has(Level::Error, "uri is not supported. uri = Demo.Echo(KitManagerApi::CheckApiPermission)"));
  EXPECT_EQ(service_->Calls(), 0);
}

TEST_F(PermissionGateTest, TheScopeServiceDecidesTheRest) {
  service_->allowed = true;
  EXPECT_TRUE(Gate(false, {"Echo", "demo.perm", "https://scope"}));
  auto request = service_->Requests().at(0);
  EXPECT_EQ(request.code, 2u);
  EXPECT_EQ(request.fields[1].at(0), "client-1");
  EXPECT_EQ(request.fields[2].at(0), "demo.perm");
  EXPECT_EQ(request.fields[3].at(0), "https://scope");

  service_->allowed = false;
  EXPECT_FALSE(Gate(false, {"Echo", "demo.perm", ""}));
  EXPECT_EQ(status_.status_code, "907135004");
  EXPECT_EQ(status_.error_reason, "API is illegal. ");
  EXPECT_TRUE(log_.Has(Level::Error, "CheckApiPermission. Failed!(KitManagerApi::CheckApiPermission)"));
}

}  // namespace

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

TEST_F(CoreRequestTest, OnlyTheCoreClientIdIsLookedAt) {
  verifier_.path = InstallFolder() + "/TarnCoreUI";
  header_.client_id = "204518762 ";
  EXPECT_FALSE(KitApiGates::IsTarnCorerequest(1, header_));
  EXPECT_EQ(verifier_.calls, 0);
  header_.client_id = "204518762";
  EXPECT_TRUE(KitApiGates::IsTarnCorerequest(77, header_));
  EXPECT_EQ(verifier_.askedPid, 77u);
}

TEST_F(CoreRequestTest, AFailedSignatureTestRefusesWithItsLines) {
  verifier_.verified = false;
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

TEST_F(PermissionGateTest, CoreRequestsPassUnasked) {
  EXPECT_TRUE(Gate(true, {"", "", ""}));
  EXPECT_EQ(lookups_, 0);
  EXPECT_TRUE(log_.Has(Level::Info, "TarnCore request, no need check API permission.(KitManagerApi::CheckApiPermission)"));
}

TEST_F(PermissionGateTest, AnUnknownApiIsNotSupported) {
  EXPECT_FALSE(Gate(false, {"", "perm", ""}));
  EXPECT_EQ(status_.status_code, "907135001");
  EXPECT_EQ(status_.error_code, "907135001");
  EXPECT_EQ(status_.error_reason, "API is not supported. ");
  EXPECT_TRUE(log_.Has(Level::Error, "uri is not supported. uri = Demo.Echo(KitManagerApi::CheckApiPermission)"));
  EXPECT_EQ(service_->Calls(), 0);
}

TEST_F(PermissionGateTest, NoPermissionAndThePlaceholderNeedNoQuestion) {
  EXPECT_EQ(std::string(tarn::access::kNoPermissionNeeded).size(), 18u);
  EXPECT_TRUE(Gate(false, {"Echo", "", ""}));
  EXPECT_TRUE(Gate(false, {"Echo", tarn::access::kNoPermissionNeeded, ""}));
  EXPECT_EQ(service_->Calls(), 0);
  EXPECT_EQ(log_.Count(Level::Debug, "no need to check permission.(KitManagerApi::CheckApiPermission)"), 2u);
  EXPECT_EQ(status_.status_code, "0");
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

struct LevelScript {
  bool configSays = false;
  std::string configCode = "907135005";
  bool updating = false;
  bool newVersion = false;
  int updateChecks = 0;
  int versionChecks = 0;

  KitApiGates::LevelChecks Checks() {
    KitApiGates::LevelChecks c;
    c.configCheckApiLevel = [this](RequestHeader&, ResponseStatus& status) {
      if (!configSays) {
        status.status_code = status.error_code = configCode;
        status.error_reason = "from config";
      }
      return configSays;
    };
    c.isUpdating = [this] {
      ++updateChecks;
      return updating;
    };
    c.hasNewVersion = [this] {
      ++versionChecks;
      return newVersion;
    };
    // Enough of a version comparison for these cases.
    c.versionAtLeast = [](const std::string& a, const std::string& b) { return a >= b; };
    return c;
  }
};

TEST(ApiLevelGateTest, OnlyTheTwoLowLevelCodesLeadToTheUpdateQuestions) {
  RequestHeader header;
  LevelScript script;
  ResponseStatus status;
  script.configSays = true;
  EXPECT_TRUE(KitApiGates::CheckApiLevel(header, status, script.Checks()));

  script.configSays = false;
  script.configCode = "907135000";
  EXPECT_FALSE(KitApiGates::CheckApiLevel(header, status, script.Checks()));
  EXPECT_EQ(status.status_code, "907135000");
  EXPECT_EQ(script.updateChecks + script.versionChecks, 0);
}

TEST(ApiLevelGateTest, AnUpdateInProgressOrMissingIsReported) {
  tarn::log::LogCapture log;
  RequestHeader header;
  LevelScript script;
  script.updating = true;
  header.sdk_version = "5.3.0.300";
  ResponseStatus status;
  EXPECT_FALSE(KitApiGates::CheckApiLevel(header, status, script.Checks()));
  EXPECT_EQ(status.status_code, "907135012");
  EXPECT_EQ(status.error_reason, "tarncore is updating. ");
  EXPECT_TRUE(log.Has(Level::Error, "tarn is updating.(KitManagerApi::CheckApiLevel)"));
  header.sdk_version = "5.2";
  EXPECT_FALSE(KitApiGates::CheckApiLevel(header, status, script.Checks()));
  EXPECT_EQ(status.status_code, "907135006");

  script.updating = false;
  script.newVersion = true;
  script.configCode = "907135013";
  status = ResponseStatus{};
  EXPECT_FALSE(KitApiGates::CheckApiLevel(header, status, script.Checks()));
  EXPECT_EQ(status.status_code, "907135013");
  EXPECT_EQ(status.error_reason, "from config");

  script.newVersion = false;
  EXPECT_FALSE(KitApiGates::CheckApiLevel(header, status, script.Checks()));
  EXPECT_EQ(status.status_code, "907135008");
  EXPECT_EQ(status.error_reason, "tarncore need update, but not have new version. ");
  EXPECT_TRUE(log.Has(Level::Error, "now has not new version.(KitManagerApi::CheckApiLevel)"));
}

}  // namespace

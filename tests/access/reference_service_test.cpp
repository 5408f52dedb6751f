// The reference scope service, both builds, behind the real service manager and the proxy.
#include <gtest/gtest.h>
#include <signal.h>

#include "access/scope_proxy.h"
#include "fake_scope.h"
#include "platform/log/log_capture.h"
#include "platform/zbrf/sandbox_channel.h"
#include "platform/zbrf/service_manager.h"
#include "zbrf/zbrf_test_env.h"

namespace {

using access_test::RecordingSink;

class ScopeServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { ScopeProxy::SetEventSink(&sink_); }
  void TearDown() override { ScopeProxy::SetEventSink(nullptr); }

  void WritePolicy(const std::string& text) { access_test::WritePolicy(env_.root(), text); }
  // The reference service, both builds, as the package ships it.
  void InstallReference() {
    env_.Install(TARN_SCOPE_SANDBOX, "TarnCoreScopeSandbox");
    env_.Install(TARN_SCOPE_LIBRARY, "libtarn_scope_service.so");
    env_.Install(TARN_SCOPE_SERVICE_INFO, "ServiceInfo.json");
    ASSERT_TRUE(manager_.RegisterServiceInfo(env_.PackageDir() + "/ServiceInfo.json"));
    WritePolicy(access_test::kPolicy);
  }
  std::unique_ptr<ScopeProxy> MakeProxy() {
    ScopeProxy::Platform p = ScopeProxy::Platform::Default();
    p.initServiceManager = [this] { manager_.Init(); };
    p.createInstance = [this](const std::string& name, const std::string& method,
                              std::shared_ptr<tarn::zbrf::ZObject>& object) {
      bool ok = manager_.CreateInstance(name, method, object);
      if (ok && name == ScopeProxy::kWasmServiceName) sandboxPid_ = tarn::zbrf::SandboxPid(*object);
      return ok;
    };
    return std::make_unique<ScopeProxy>(std::move(p));
  }

  zbrf_test::ServiceRoot env_;
  tarn::zbrf::ZServiceManager manager_;
  RecordingSink sink_;
  tarn::log::LogCapture log_;
  pid_t sandboxPid_ = 0;
};

TEST_F(ScopeServiceTest, TheSandboxedBuildDecidesFromThePolicyAndReadsItAgainWhenItChanges) {
  InstallReference();
  auto proxy = MakeProxy();
  ASSERT_TRUE(proxy->HasService());
  EXPECT_FALSE(proxy->IsFallback());
  EXPECT_GT(sandboxPid_, 0);
  EXPECT_EQ(proxy->CheckCertFingerprint("100", "AB12"), 0);
  EXPECT_EQ(proxy->CheckCertFingerprint("200", "CD34"), 1000);
  EXPECT_TRUE(proxy->CheckPermission("100", "contacts.read"));
  EXPECT_TRUE(proxy->CheckApiPermission("100", "mail.send", "https://mail"));
  std::list<Scope> scopes;
  proxy->GetScopeByAppId("100", scopes);
  ASSERT_EQ(scopes.size(), 2u);
  EXPECT_EQ(scopes.front().GetUrl(), "https://mail");
  proxy->SetLastCheckTime("100");
  proxy->InvokeOpenGateway("204518762");

  WritePolicy(R"({ "clients": { "200": { "fingerprints": ["CD34"] } } })");
  EXPECT_EQ(proxy->CheckCertFingerprint("200", "CD34"), 0);
  EXPECT_EQ(proxy->CheckCertFingerprint("100", "AB12"), 1);
  WritePolicy("this is not JSON");
  EXPECT_EQ(proxy->CheckCertFingerprint("200", "CD34"), 1);
  EXPECT_FALSE(proxy->CheckPermission("100", "contacts.read"));
  EXPECT_FALSE(proxy->IsFallback());
  EXPECT_TRUE(sink_.Records().empty());
}

// Killed from outside, or by its own system call filter for making a
// process, the sandboxed build gives way to the native build for good.
TEST_F(ScopeServiceTest, ADeadSandboxedBuildFallsBackToTheNativeBuild) {
  InstallReference();
  for (const bool killedByFilter : {false, true}) {
    SCOPED_TRACE(killedByFilter ? "forbidden call" : "killed");
    RecordingSink sink;
    ScopeProxy::SetEventSink(&sink);
    log_.Clear();
    if (killedByFilter) {
      // The test sandbox in its place: it would refuse, were it let live.
      env_.Install(ZBRF_TEST_SANDBOX, "TarnCoreScopeSandbox");
    }
    auto proxy = MakeProxy();
    ASSERT_GT(sandboxPid_, 0);
    if (!killedByFilter) {
      ASSERT_EQ(proxy->CheckCertFingerprint("100", "AB12"), 0);
      ASSERT_EQ(::kill(sandboxPid_, SIGKILL), 0);
    }
    EXPECT_EQ(proxy->CheckCertFingerprint("100", "AB12"), 0);
    EXPECT_TRUE(proxy->IsFallback());
    EXPECT_EQ(sink.StatusCodes(), (std::vector<std::string>{"-1", "907180001"}));
    EXPECT_EQ(sink.Records().at(0).apiName, "framework.CheckCertFingerprint");
    EXPECT_TRUE(log_.Has(tarn::log::Level::Info, "LocalZObjectProxy Transact(LocalZbrfProxy::Transact)"));
    // The native build reads the same policy, and stays.
    EXPECT_EQ(proxy->CheckCertFingerprint("200", "CD34"), 1000);
    EXPECT_TRUE(proxy->CheckPermission("100", "contacts.read"));
    EXPECT_EQ(sink.Records().size(), 2u);
  }
}

}  // namespace

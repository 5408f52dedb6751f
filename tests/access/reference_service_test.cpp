// The reference scope service, both builds, behind the real service manager and the proxy.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>

#include "access/scope_proxy.h"
#include "fake_scope.h"
#include "platform/log/log_capture.h"
#include "platform/zbrf/sandbox_channel.h"
#include "platform/zbrf/service_manager.h"
#include "zbrf/zbrf_test_env.h"

namespace {

using access_test::RecordingSink;
using Clock = std::chrono::steady_clock;

class ScopeServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { ScopeProxy::SetEventSink(&sink_); }
  void TearDown() override {
    ScopeProxy::SetEventSink(nullptr);
    ::unsetenv("ZBRF_TEST_BEHAVIOUR");
  }

  void WritePolicy(const std::string& text) { access_test::WritePolicy(env_.root(), text); }
  // The reference service, both builds, as the package ships it.
  void InstallReference() {
    env_.Install(TARN_SCOPE_SANDBOX, "TarnCoreScopeSandbox");
    env_.Install(TARN_SCOPE_LIBRARY, "libtarn_scope_service.so");
    env_.Install(TARN_SCOPE_SERVICE_INFO, "ServiceInfo.json");
    ASSERT_TRUE(manager_.RegisterServiceInfo(env_.PackageDir() + "/ServiceInfo.json"));
    WritePolicy(access_test::kPolicy);
  }
  // The test sandbox in the sandboxed build's place, and no native build to fall back to.
  void InstallMisbehaving(const char* behaviour) {
    ::setenv("ZBRF_TEST_BEHAVIOUR", behaviour, 1);
    env_.Install(ZBRF_TEST_SANDBOX, "zbrf_test_sandbox");
    ASSERT_TRUE(manager_.RegisterServiceInfo(env_.WriteServiceInfo(R"({ "services": [
      { "name": "wasm.scopeService", "kind": "sandbox", "path": "zbrf_test_sandbox", "methods": ["getScopeService"] } ] })")));
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
    p.sleepMs = [this](uint32_t) { ++sleeps_; };
    return std::make_unique<ScopeProxy>(std::move(p));
  }

  zbrf_test::ServiceRoot env_;
  tarn::zbrf::ZServiceManager manager_;
  RecordingSink sink_;
  tarn::log::LogCapture log_;
  pid_t sandboxPid_ = 0;
  int sleeps_ = 0;
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
      ::setenv("ZBRF_TEST_BEHAVIOUR", "fork", 1);
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

// A silent service costs one time-out of at most 2 s (the further tries fail
// at once); garbage fails at once. Either way the next call tries the sandbox
// and the missing native build again, and fails at once too.
TEST_F(ScopeServiceTest, ASilentOrGarbledServiceEndsInRefusalWithinTheBound) {
  using std::chrono::seconds;
  for (auto [behaviour, bound] : {std::pair{"hang", seconds(8)}, std::pair{"garbage", seconds(4)}}) {
    SCOPED_TRACE(behaviour);
    RecordingSink sink;
    ScopeProxy::SetEventSink(&sink);
    InstallMisbehaving(behaviour);
    auto proxy = MakeProxy();
    ASSERT_TRUE(proxy->HasService());
    auto start = Clock::now();
    EXPECT_EQ(proxy->CheckCertFingerprint("100", "AB12"), -1);
    EXPECT_LT(Clock::now() - start, bound);
    start = Clock::now();
    EXPECT_FALSE(proxy->CheckApiPermission("100", "p", "u"));
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(sleeps_, 0);
    EXPECT_EQ(sink.StatusCodes(), (std::vector<std::string>{"-1", "907180001", "-1", "907180001"}));
  }
}

TEST_F(ScopeServiceTest, AServiceBusy220TimesGivesTheBusyOutcome) {
  InstallMisbehaving("busy");
  auto proxy = MakeProxy();
  EXPECT_EQ(proxy->CheckCertFingerprint("100", "AB12"), 2000);
  EXPECT_EQ(sleeps_, 220);
  EXPECT_TRUE(log_.Has(tarn::log::Level::Warn, "scope proxy invokewithtry times limit(ScopeProxy::CheckCertFingerprint)"));
}

}  // namespace

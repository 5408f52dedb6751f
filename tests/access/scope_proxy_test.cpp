#include "access/scope_proxy.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <tuple>

#include "fake_scope.h"
#include "platform/log/log_capture.h"

namespace {

using access_test::FakePlatform;
using access_test::FakeScopeObject;
using access_test::RecordingSink;
using tarn::log::Level;

class ScopeProxyTest : public ::testing::Test {
 protected:
  void SetUp() override { ScopeProxy::SetEventSink(&sink_); }
  void TearDown() override { ScopeProxy::SetEventSink(nullptr); }

  // Gives the platform the builds asked for and makes the proxy.
  std::unique_ptr<ScopeProxy> Make(bool wasm, bool native) {
    if (wasm) platform_.wasm = std::make_shared<FakeScopeObject>();
    if (native) platform_.native = std::make_shared<FakeScopeObject>();
    return std::make_unique<ScopeProxy>(platform_.Make());
  }

  FakePlatform platform_;
  RecordingSink sink_;
  tarn::log::LogCapture log_;
};

TEST_F(ScopeProxyTest, WithNeitherBuildEveryCallRefusesAtOnce) {
  auto proxy = Make(false, false);
  EXPECT_EQ(platform_.wasmCreations.load(), 3);
  EXPECT_EQ(platform_.nativeCreations.load(), 1);
  EXPECT_EQ(log_.Count(Level::Error, "scope proxy create service with wasm failed(ScopeProxy::CreateWasmScopeService)"), 3u);
  EXPECT_TRUE(log_.Has(Level::Error, "scope proxy create service with native dll failed(ScopeProxy::CreateDllScopeService)"));
  EXPECT_FALSE(proxy->HasService());

  EXPECT_FALSE(proxy->CheckPermission("app", "perm"));
  EXPECT_TRUE(log_.Has(Level::Error, "ScopeProxy: mScopeService is null. fallback: 0(ScopeProxy::CheckPermission)"));
  EXPECT_EQ(proxy->CheckCertFingerprint("app", "FP"), -1);
  EXPECT_EQ(platform_.sleeps.load(), 0);
  EXPECT_FALSE(proxy->CheckApiPermission("app", "perm", "uri"));
  std::list<Scope> scopes(2);
  proxy->GetScopeByAppId("app", scopes);
  EXPECT_EQ(scopes.size(), 2u);

  // Only the failed creation was reported, with an elapsed time of 0.
  auto records = sink_.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(std::tie(records[0].statusCode, records[0].apiName, records[0].callTime, records[0].package, records[0].result),
            std::tuple("907180001", "framework.CreateScopeService", "0", "com.vantrel.tarn.framework", "-1"));
  EXPECT_TRUE(std::regex_match(records[0].transId, std::regex(R"(framework\.CreateScopeService\d{14}\d{1,9})")))
      << records[0].transId;
}

TEST_F(ScopeProxyTest, ABrokenSandboxFallsBackToTheNativeBuildForGood) {
  auto proxy = Make(true, true);
  EXPECT_TRUE(log_.Has(Level::Info, "scope proxy create service with wasm success(ScopeProxy::CreateWasmScopeService)"));
  platform_.wasm->failTransact = true;
  platform_.wasm->onCall = [this] { platform_.now += 7; };

  EXPECT_TRUE(proxy->CheckPermission("app", "perm"));
  EXPECT_EQ(platform_.wasm->Calls(), 3);
  EXPECT_EQ(platform_.native->Calls(), 1);
  EXPECT_TRUE(proxy->IsFallback());
  EXPECT_TRUE(log_.Has(Level::Info, "scope proxy call will with native dll(ScopeProxy::IsNeedTry)"));
  EXPECT_TRUE(log_.Has(Level::Info, "scope proxy create service with dll success(ScopeProxy::CreateDllScopeService)"));
  auto records = sink_.Records();
  ASSERT_EQ(records.size(), 2u);
  // Three failed tries of 7 ms, then the native build's creation.
  EXPECT_EQ(std::tie(records[0].statusCode, records[0].apiName, records[0].callTime),
            std::tuple("-1", "framework.CheckPermission", "21"));
  EXPECT_EQ(std::tie(records[1].statusCode, records[1].callTime), std::tuple("907180001", "0"));

  // From now on only the native build is asked, once per call, even when it fails.
  EXPECT_EQ(proxy->CheckCertFingerprint("app", "FP"), 0);
  proxy->SetLastCheckTime("app");
  EXPECT_EQ(sink_.Records().size(), 2u);
  platform_.native->failTransact = true;
  EXPECT_FALSE(proxy->CheckApiPermission("app", "perm", "uri"));
  EXPECT_EQ(platform_.wasm->Calls(), 3);
  EXPECT_EQ(platform_.native->Calls(), 4);
  EXPECT_EQ(platform_.nativeCreations.load(), 1);
}

// Busy is waited out, 100 ms a pass; a pass that gets no answer keeps the busy code.
TEST_F(ScopeProxyTest, BusyAnswersAreWaitedOutForAtMost220Passes) {
  struct Case { std::deque<int32_t> codes; int answers; int32_t result; int calls, sleeps; };
  for (const Case& c : {Case{{1001, 1001, 1000}, -1, 1000, 3, 2}, Case{{1001}, 1, 2000, 220, 220}}) {
    SCOPED_TRACE(c.result);
    platform_.sleeps = 0;
    auto proxy = Make(false, true);
    platform_.native->fingerprintCodes = c.codes;
    platform_.native->answersBeforeFailing = c.answers;
    EXPECT_EQ(proxy->CheckCertFingerprint("app", "FP"), c.result);
    EXPECT_EQ(platform_.native->Calls(), c.calls);
    EXPECT_EQ(platform_.sleeps.load(), c.sleeps);
  }
}

TEST_F(ScopeProxyTest, ScopesAreAppendedInServiceOrderAndEntryLinesNameTheCall) {
  auto proxy = Make(true, false);
  platform_.wasm->scopes = {{"4", "contacts", "https://c", "read", "write"}, {"5", "files", ""}};
  std::list<Scope> scopes(1);
  proxy->GetScopeByAppId("app", scopes);
  std::vector<std::tuple<int, std::string, std::string, std::vector<std::string>>> got;
  for (const Scope& scope : scopes) got.emplace_back(scope.GetId(), scope.GetName(), scope.GetUrl(), scope.GetPermissions());
  EXPECT_EQ(got, (decltype(got){{0, "", "", {}}, {4, "contacts", "https://c", {"read", "write"}}, {5, "files", "", {}}}));

  // The exported function goes to the process's proxy and always says 0.
  ScopeProxy::SetInstanceForTesting(proxy.get());
  std::list<Scope> exported;
  EXPECT_EQ(TarnGetScopeByAppId("app", exported), 0);
  EXPECT_EQ(exported.size(), 2u);
  platform_.wasm->failTransact = true;
  EXPECT_EQ(TarnGetScopeByAppId("app", exported), 0);
  EXPECT_EQ(exported.size(), 2u);
  ScopeProxy::SetInstanceForTesting(nullptr);

  proxy->CheckCertFingerprint("42", "ABC");
  proxy->SetLastCheckTime("42");
  proxy->InvokeOpenGateway("204518762");
  proxy->CheckPermission("42", "p");
  proxy->CheckApiPermission("42", "p", "u");
  for (const char* line : {
           "ScopeProxy: CheckCertFingerprint enter appId:42 packageFingerprint:ABC(ScopeProxy::CheckCertFingerprint)",
           "ScopeProxy: SetLastCheckTime enter appId:42(ScopeProxy::SetLastCheckTime)",
           "ScopeProxy: InvokeOpenGateway enter appId:204518762(ScopeProxy::InvokeOpenGateway)",
           "ScopeProxy: CheckPermission enter(ScopeProxy::CheckPermission)",
           "ScopeProxy: CheckApiPermission enter(ScopeProxy::CheckApiPermission)",
           "ScopeProxy: GetScopeByAppId enter(ScopeProxy::GetScopeByAppId)"}) {
    EXPECT_TRUE(log_.Has(Level::Info, line)) << line;
  }
}

// A caller still retrying the sandbox when another completes the fallback
// has used its one try and ends with the default; every later call asks the
// native build once.
TEST_F(ScopeProxyTest, ConcurrentCallersGetTheNativeDecisionAfterTheFallback) {
  auto proxy = Make(true, true);
  platform_.wasm->failTransact = true;
  platform_.native->fingerprintCodes = {1000};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        const int32_t code = proxy->CheckCertFingerprint("app", "FP");
        wrong += code != 1000 && !(code == -1 && i == 0);  // only a thread's first call can race the switch
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_TRUE(proxy->IsFallback());
  // At most one sandbox round per thread that raced into the fallback.
  EXPECT_LE(platform_.wasm->Calls(), 3 * 8);
}

}  // namespace

#include "platform/zbrf/service_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/security/security.h"
#include "platform/zbrf/sandbox_channel.h"
#include "zbrf_test_codes.h"
#include "zbrf_test_env.h"

namespace {

namespace fs = std::filesystem;
using tarn::zbrf::ZObject;
using tarn::zbrf::ZParcel;
using tarn::zbrf::ZServiceManager;
using namespace zbrf_test;
using Clock = std::chrono::steady_clock;

const char* kInfo = R"({ "services": [
  { "name": "sandbox.test", "kind": "sandbox", "path": "zbrf_test_sandbox", "methods": ["getTestService"] },
  { "name": "lib.test", "kind": "library", "path": "libtest_a.so", "methods": ["getTestService", "getFailingService"] } ] })";

struct Echo {
  bool ok = false;
  std::string text;
  int32_t pid = 0;
  int32_t flags = -1;
};

std::shared_ptr<ZParcel> Request(const std::string& text) {
  auto data = ZParcel::CreateInstance();
  data->WriteHeader();
  data->WriteString(1, text);
  return data;
}

Echo ReadEcho(ZParcel& reply) {
  Echo e;
  e.ok = true;
  int32_t status = -1;
  reply.ReadStatus(status);
  for (uint32_t tag = reply.ReadTag(); tag != 0; tag = reply.ReadTag()) {
    switch (reply.TagField(tag)) {
      case 1: reply.ReadString(e.text); break;
      case 2: reply.ReadInt32(e.pid); break;
      case 3: reply.ReadInt32(e.flags); break;
      default: reply.SkipField(tag);
    }
  }
  return e;
}

Echo Call(ZObject& object, uint32_t code, const std::string& text = "", uint32_t flags = 0) {
  auto reply = ZParcel::CreateInstance();
  if (!object.Transact(code, Request(text), reply, flags)) return {};
  return ReadEcho(*reply);
}

Echo Serve(ZObject& object, uint32_t code) {
  auto data = Request("");
  auto reply = ZParcel::CreateInstance();
  if (!object.OnTransact(code, data, reply, 0)) return {};
  return ReadEcho(*reply);
}

// The errno a confinement probe reports in field 1; -1 without an answer.
int32_t ErrnoOf(ZObject& object, uint32_t code, const std::string& path) {
  auto reply = ZParcel::CreateInstance();
  if (!object.Transact(code, Request(path), reply, 0)) {
    ADD_FAILURE() << "no answer to probe " << code;
    return -1;
  }
  int32_t status = 0, result = -1;
  reply->ReadStatus(status);
  for (uint32_t tag = reply->ReadTag(); tag != 0; tag = reply->ReadTag()) {
    if (reply->TagField(tag) == 1) {
      reply->ReadInt32(result);
    } else {
      reply->SkipField(tag);
    }
  }
  return result;
}

bool ProcessGone(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

// Verifies for real, then puts another file in place of the one verified:
// what gets loaded or run must still be what was verified.
class SwappingChecker : public tarn::security::FileSignatureChecker {
 public:
  SwappingChecker(std::string target, std::string replacement)
      : target_(std::move(target)), replacement_(std::move(replacement)) {}
  bool VerifyEmbedded(const std::string& path) override {
    bool ok = FileSignatureChecker::VerifyEmbedded(path);
    if (armed_ && path.rfind("/proc/self/fd/", 0) == 0) {
      fs::copy_file(replacement_, target_ + ".new", fs::copy_options::overwrite_existing);
      fs::rename(target_ + ".new", target_);
      armed_ = false;
    }
    return ok;
  }
  bool armed_ = true;

 private:
  std::string target_, replacement_;
};

class ServiceManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandboxPath_ = env_.Install(ZBRF_TEST_SANDBOX, "zbrf_test_sandbox");
    libraryPath_ = env_.Install(ZBRF_TEST_LIBRARY_A, "libtest_a.so");
    infoPath_ = env_.WriteServiceInfo(kInfo);
    ASSERT_TRUE(manager_.RegisterServiceInfo(infoPath_));
  }
  void TearDown() override { tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr); }

  std::shared_ptr<ZObject> Sandbox() {
    std::shared_ptr<ZObject> object;
    EXPECT_TRUE(manager_.CreateInstance("sandbox.test", "getTestService", object));
    return object;
  }

  ServiceRoot env_;
  ZServiceManager manager_;
  std::string sandboxPath_, libraryPath_, infoPath_;
};

TEST_F(ServiceManagerTest, RegistersOnlySignedFilesInsideThePackage) {
  fs::copy_file(sandboxPath_, env_.PackageDir() + "/unsigned");
  StripSignature(env_.PackageDir() + "/unsigned");
  fs::copy_file(sandboxPath_, env_.root().At("opt/tarn/kits/outside"));
  const std::string info = env_.WriteServiceInfo(R"({ "services": [
    { "name": "good", "kind": "sandbox", "path": "zbrf_test_sandbox", "methods": ["getTestService"] },
    { "name": "unsigned", "kind": "sandbox", "path": "unsigned", "methods": ["m"] },
    { "name": "climbs", "kind": "sandbox", "path": "../outside", "methods": ["m"] },
    { "name": "absolute", "kind": "sandbox", "path": ")" + sandboxPath_ + R"(", "methods": ["m"] },
    { "name": "strange", "kind": "plugin", "path": "zbrf_test_sandbox", "methods": ["m"] },
    { "name": "missing", "kind": "library", "path": "nothing.so", "methods": ["m"] },
    { "name": 5, "kind": "library", "path": "libtest_a.so", "methods": ["m"] } ] })");
  ZServiceManager fresh;
  EXPECT_TRUE(fresh.RegisterServiceInfo(info));
  auto services = fresh.Services();
  ASSERT_EQ(services.size(), 1u);
  EXPECT_EQ(services[0].name, "good");
  EXPECT_EQ(services[0].path, sandboxPath_);
  std::shared_ptr<ZObject> object;
  EXPECT_FALSE(fresh.CreateInstance("unsigned", "m", object));
  EXPECT_EQ(object, nullptr);
}

TEST_F(ServiceManagerTest, DescriptionsThatAreNotServiceListsAreRefused) {
  ZServiceManager fresh;
  for (const char* text : {"not json", "[]", R"({"services": {}})", R"({"services": []})"}) {
    EXPECT_FALSE(fresh.RegisterServiceInfo(env_.WriteServiceInfo(text))) << text;
  }
  EXPECT_FALSE(fresh.RegisterServiceInfo(env_.PackageDir() + "/none.json"));
  EXPECT_TRUE(fresh.Services().empty());
}

TEST_F(ServiceManagerTest, ALibraryServiceRunsInThisProcess) {
  std::shared_ptr<ZObject> object;
  ASSERT_TRUE(manager_.CreateInstance("lib.test", "getTestService", object));
  Echo e = Serve(*object, kEcho);
  EXPECT_TRUE(e.ok);
  EXPECT_EQ(e.text, "A");
  EXPECT_EQ(e.pid, ::getpid());
  // A second instance comes from the library already loaded.
  std::shared_ptr<ZObject> second;
  ASSERT_TRUE(manager_.CreateInstance("lib.test", "getTestService", second));
  EXPECT_NE(second, object);
  EXPECT_EQ(Serve(*second, kEcho).text, "A");
}

TEST_F(ServiceManagerTest, CreationFailsForUnknownNamesMethodsAndFailingFactories) {
  std::shared_ptr<ZObject> object;
  EXPECT_FALSE(manager_.CreateInstance("nobody", "getTestService", object));
  EXPECT_FALSE(manager_.CreateInstance("lib.test", "getScopeService", object));       // not listed
  EXPECT_FALSE(manager_.CreateInstance("sandbox.test", "getFailingService", object));  // not listed
  EXPECT_FALSE(manager_.CreateInstance("lib.test", "getFailingService", object));     // factory says no
  EXPECT_EQ(object, nullptr);
}

TEST_F(ServiceManagerTest, AFileThatLostItsSignatureAfterRegistrationIsNotUsed) {
  StripSignature(libraryPath_);
  StripSignature(sandboxPath_);
  std::shared_ptr<ZObject> object;
  EXPECT_FALSE(manager_.CreateInstance("lib.test", "getTestService", object));
  EXPECT_FALSE(manager_.CreateInstance("sandbox.test", "getTestService", object));
}

TEST_F(ServiceManagerTest, TheLibraryLoadedIsTheOneVerified) {
  SwappingChecker checker(libraryPath_, ZBRF_TEST_LIBRARY_B);
  tarn::security::FileSignatureChecker::SetInstanceForTesting(&checker);
  std::shared_ptr<ZObject> object;
  ASSERT_TRUE(manager_.CreateInstance("lib.test", "getTestService", object));
  EXPECT_FALSE(checker.armed_);
  EXPECT_EQ(Serve(*object, kEcho).text, "A");
}

TEST_F(ServiceManagerTest, TheProgramStartedIsTheOneVerified) {
  SwappingChecker checker(sandboxPath_, "/bin/true");
  tarn::security::FileSignatureChecker::SetInstanceForTesting(&checker);
  auto object = Sandbox();
  ASSERT_TRUE(object);
  EXPECT_FALSE(checker.armed_);
  EXPECT_EQ(Call(*object, kEcho, "same").text, "same");
}

TEST_F(ServiceManagerTest, ASandboxedServiceAnswersFromItsOwnProcess) {
  auto object = Sandbox();
  ASSERT_TRUE(object);
  const pid_t child = tarn::zbrf::SandboxPid(*object);
  EXPECT_GT(child, 0);
  Echo e = Call(*object, kEcho, "hello", 77);
  EXPECT_TRUE(e.ok);
  EXPECT_EQ(e.text, "hello");
  EXPECT_EQ(e.pid, child);
  EXPECT_EQ(e.flags, 77);
  // A refusal by the service is an answer like any other: the next call works.
  EXPECT_FALSE(Call(*object, kRefuse).ok);
  EXPECT_EQ(Call(*object, kEcho, std::string(100000, 'x')).text.size(), 100000u);
  object.reset();
  EXPECT_TRUE(ProcessGone(child));
}

TEST_F(ServiceManagerTest, ConcurrentCallersAllGetTheirOwnAnswers) {
  auto object = Sandbox();
  ASSERT_TRUE(object);
  std::vector<std::thread> threads;
  std::atomic<int> right{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        const std::string text = std::to_string(t) + ":" + std::to_string(i);
        if (Call(*object, kEcho, text).text == text) ++right;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(right.load(), 100);
}

TEST_F(ServiceManagerTest, AKilledOrExitedServiceFailsEveryLaterCall) {
  auto killed = Sandbox();
  ASSERT_TRUE(killed);
  const pid_t pid = tarn::zbrf::SandboxPid(*killed);
  ASSERT_TRUE(Call(*killed, kEcho, "x").ok);
  ASSERT_EQ(::kill(pid, SIGKILL), 0);
  EXPECT_FALSE(Call(*killed, kEcho, "x").ok);
  EXPECT_EQ(tarn::zbrf::SandboxPid(*killed), 0);
  EXPECT_FALSE(Call(*killed, kEcho, "x").ok);

  auto exited = Sandbox();
  ASSERT_TRUE(exited);
  EXPECT_FALSE(Call(*exited, kExit).ok);
  EXPECT_FALSE(Call(*exited, kEcho, "x").ok);
}

TEST_F(ServiceManagerTest, ASilentServiceTimesOutWithinTheBound) {
  manager_.SetSandboxTimeout(std::chrono::seconds(30));  // clamped to the 2 s maximum
  auto object = Sandbox();
  ASSERT_TRUE(object);
  const pid_t pid = tarn::zbrf::SandboxPid(*object);
  const auto start = Clock::now();
  EXPECT_FALSE(Call(*object, kHang).ok);
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(1900));
  EXPECT_LT(waited, std::chrono::seconds(10));
  EXPECT_TRUE(ProcessGone(pid));
  // Ended for good: the next call doesn't wait again.
  const auto again = Clock::now();
  EXPECT_FALSE(Call(*object, kEcho, "x").ok);
  EXPECT_LT(Clock::now() - again, std::chrono::milliseconds(1500));
}

TEST_F(ServiceManagerTest, GarbageFromTheServiceEndsIt) {
  auto garbage = Sandbox();
  ASSERT_TRUE(garbage);
  EXPECT_FALSE(Call(*garbage, kGarbage).ok);
  EXPECT_FALSE(Call(*garbage, kEcho, "x").ok);

  // Bytes that nobody asked for, after a good answer, spoil the next call.
  auto trailing = Sandbox();
  ASSERT_TRUE(trailing);
  auto reply = ZParcel::CreateInstance();
  EXPECT_TRUE(trailing->Transact(kTrailingGarbage, Request(""), reply, 0));
  EXPECT_EQ(reply->Data(), "ok");
  EXPECT_FALSE(Call(*trailing, kEcho, "x").ok);
}

bool LandlockAvailable() {
  return ::syscall(SYS_landlock_create_ruleset, nullptr, 0, 1 /* version */) >= 1;
}

class SandboxConfinementTest : public ServiceManagerTest {
 protected:
  void SetUp() override {
    env_.root().WriteFile("etc/readable/allowed.txt", "yes");
    env_.root().WriteFile("etc/secret.txt", "no");
    ::setenv("ZBRF_TEST_READABLE", env_.root().At("etc/readable").c_str(), 1);
    ServiceManagerTest::SetUp();
  }
  void TearDown() override {
    ::unsetenv("ZBRF_TEST_READABLE");
    ServiceManagerTest::TearDown();
  }
};

TEST_F(SandboxConfinementTest, FilesCanBeReadOnlyBeneathTheServicesFolders) {
  auto object = Sandbox();
  ASSERT_TRUE(object);
  EXPECT_EQ(ErrnoOf(*object, kOpenRead, env_.root().At("etc/readable/allowed.txt")), 0);
  if (!LandlockAvailable()) GTEST_SKIP() << "the kernel has no Landlock";
  EXPECT_EQ(ErrnoOf(*object, kOpenRead, env_.root().At("etc/secret.txt")), EACCES);
  EXPECT_EQ(ErrnoOf(*object, kOpenRead, "/etc/passwd"), EACCES);
}

TEST_F(SandboxConfinementTest, NothingCanBeWrittenOrConnected) {
  auto object = Sandbox();
  ASSERT_TRUE(object);
  EXPECT_EQ(ErrnoOf(*object, kOpenWrite, env_.root().At("etc/readable/new.txt")), EPERM);
  EXPECT_FALSE(fs::exists(env_.root().At("etc/readable/new.txt")));
  EXPECT_EQ(ErrnoOf(*object, kSocket, ""), EPERM);
  // Still serving after the refusals.
  EXPECT_EQ(Call(*object, kEcho, "x").text, "x");
}

TEST_F(SandboxConfinementTest, RunningAnotherProgramKillsTheService) {
  auto object = Sandbox();
  ASSERT_TRUE(object);
  const pid_t pid = tarn::zbrf::SandboxPid(*object);
  EXPECT_FALSE(Call(*object, kExec).ok);
  EXPECT_TRUE(ProcessGone(pid));
}

TEST(ZbrfLogAdapterTest, FrameworkLinesReachTheRegisteredAdapterWithItsTag) {
  struct Capture : tarn::zbrf::LogAdapter {
    explicit Capture(std::vector<std::string>* lines) : lines_(lines) {}
    void Error(const char* tag, const char* text) override { lines_->push_back(std::string(tag) + "|" + text); }
    std::vector<std::string>* lines_;
  };
  std::vector<std::string> lines;
  ZServiceManager::GetInstance().RegisterLogAdapter(new Capture(&lines));
  std::shared_ptr<ZObject> object;
  EXPECT_FALSE(ZServiceManager::GetInstance().CreateInstance("nobody.here", "m", object));
  ZServiceManager::GetInstance().RegisterLogAdapter(std::unique_ptr<tarn::zbrf::LogAdapter>());
  EXPECT_THAT(lines, ::testing::Contains("zbrf|CreateInstance: no service nobody.here"));
}

}  // namespace

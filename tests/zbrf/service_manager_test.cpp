#include "platform/zbrf/service_manager.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "platform/security/security.h"
#include "platform/zbrf/sandbox_channel.h"
#include "support/swapping_checker.h"
#include "zbrf_test_codes.h"
#include "zbrf_test_env.h"

namespace {

namespace fs = std::filesystem;
using tarn::zbrf::SandboxPid;
using tarn::zbrf::ZObject;
using tarn::zbrf::ZParcel;
using tarn::zbrf::ZServiceManager;
using namespace zbrf_test;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const char* kInfo = R"({ "services": [
  { "name": "sandbox.test", "kind": "sandbox", "path": "zbrf_test_sandbox", "methods": ["getTestService"] },
  { "name": "lib.test", "kind": "library", "path": "libtest_a.so", "methods": ["getTestService", "getFailingService"] } ] })";

// A test service's reply: field 1 is a text (echo) or a number (a probe's errno).
struct Answer {
  bool ok = false;
  std::string text, previous;
  int32_t number = -1, pid = 0, flags = -1;
};

// Over the object's transport, or straight into OnTransact for an in-process service.
Answer Call(ZObject& object, uint32_t code, const std::string& text = "", uint32_t flags = 0, bool local = false) {
  auto data = ZParcel::CreateInstance();
  data->WriteHeader();
  data->WriteString(1, text);
  auto reply = ZParcel::CreateInstance();
  if (!(local ? object.OnTransact(code, data, reply, flags) : object.Transact(code, data, reply, flags))) return {};
  Answer a;
  a.ok = true;
  int32_t status = -1;
  reply->ReadStatus(status);
  for (uint32_t tag = reply->ReadTag(); tag != 0; tag = reply->ReadTag()) {
    switch (reply->TagField(tag)) {
      case 1: (tag & 7) == 2 ? reply->ReadString(a.text) : reply->ReadInt32(a.number); break;
      case 2: reply->ReadInt32(a.pid); break;
      case 3: reply->ReadInt32(a.flags); break;
      case 4: reply->ReadString(a.previous); break;
      default: reply->SkipField(tag);
    }
  }
  return a;
}

bool ProcessGone(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

class ServiceManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandboxPath_ = env_.Install(ZBRF_TEST_SANDBOX, "zbrf_test_sandbox");
    libraryPath_ = env_.Install(ZBRF_TEST_LIBRARY_A, "libtest_a.so");
    ASSERT_TRUE(manager_.RegisterServiceInfo(env_.WriteServiceInfo(kInfo)));
  }
  void TearDown() override { tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr); }

  std::shared_ptr<ZObject> Create(const std::string& name) {
    std::shared_ptr<ZObject> object;
    EXPECT_TRUE(manager_.CreateInstance(name, "getTestService", object)) << name;
    return object;
  }

  ServiceRoot env_;
  ZServiceManager manager_;
  std::string sandboxPath_, libraryPath_;
};

TEST_F(ServiceManagerTest, OnlyServiceListsOfSignedFilesInsideThePackageServe) {
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
  // Descriptions that are no service lists.
  ZServiceManager other;
  for (const char* text : {"not json", "[]", R"({"services": {}})", R"({"services": []})"}) {
    EXPECT_FALSE(other.RegisterServiceInfo(env_.WriteServiceInfo(text))) << text;
  }
  EXPECT_FALSE(other.RegisterServiceInfo(env_.PackageDir() + "/none.json"));
  EXPECT_TRUE(other.Services().empty());

  // A file that lost its signature after registration is not used either.
  StripSignature(libraryPath_);
  StripSignature(sandboxPath_);
  EXPECT_FALSE(manager_.CreateInstance("lib.test", "getTestService", object));
  EXPECT_FALSE(manager_.CreateInstance("sandbox.test", "getTestService", object));
  EXPECT_EQ(object, nullptr);
}

TEST_F(ServiceManagerTest, ALibraryServiceRunsInThisProcessAndUnknownOrFailingOnesDont) {
  auto object = Create("lib.test"), second = Create("lib.test");  // the second from the library already loaded
  ASSERT_TRUE(object && second);
  EXPECT_NE(second, object);
  Answer a = Call(*second, kEcho, "", 0, true);
  EXPECT_EQ(std::pair(a.text, a.pid), std::pair(std::string("A"), ::getpid()));

  std::shared_ptr<ZObject> none;
  EXPECT_FALSE(manager_.CreateInstance("nobody", "getTestService", none));
  EXPECT_FALSE(manager_.CreateInstance("lib.test", "getScopeService", none));       // not listed
  EXPECT_FALSE(manager_.CreateInstance("sandbox.test", "getFailingService", none));  // not listed
  EXPECT_FALSE(manager_.CreateInstance("lib.test", "getFailingService", none));     // factory says no
  EXPECT_EQ(none, nullptr);
}

TEST_F(ServiceManagerTest, WhatIsLoadedOrStartedIsWhatWasVerified) {
  for (bool library : {true, false}) {
    SCOPED_TRACE(library ? "library" : "sandbox");
    tarn::test::SwappingChecker checker(library ? libraryPath_ : sandboxPath_, library ? ZBRF_TEST_LIBRARY_B : "/bin/true");
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&checker);
    auto object = Create(library ? "lib.test" : "sandbox.test");
    ASSERT_TRUE(object);
    EXPECT_FALSE(checker.armed);
    EXPECT_EQ(Call(*object, kEcho, "same", 0, library).text, library ? "A" : "same");
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
  }
}

TEST_F(ServiceManagerTest, ASandboxedServiceAnswersFromItsOwnProcess) {
  auto object = Create("sandbox.test");
  ASSERT_TRUE(object);
  const pid_t child = SandboxPid(*object);
  EXPECT_GT(child, 0);
  Answer a = Call(*object, kEcho, "hello", 76);
  EXPECT_TRUE(a.ok);
  EXPECT_EQ(std::tuple(a.text, a.pid, a.flags), std::tuple("hello", child, 76));
  // A one-way request is served in its turn and answers nothing: the next
  // call gets its own reply.
  a = Call(*object, kEcho, "one-way", tarn::zbrf::kFlagOneWay);
  EXPECT_TRUE(a.ok);
  EXPECT_EQ(a.text, "");
  a = Call(*object, kEcho, "after");
  EXPECT_EQ(std::tuple(a.text, a.previous), std::tuple("after", "one-way"));
  // A refusal by the service is an answer like any other: the next call works.
  EXPECT_FALSE(Call(*object, kRefuse).ok);
  EXPECT_EQ(Call(*object, kEcho, std::string(100000, 'x')).text.size(), 100000u);
  // Concurrent callers each get their own answer, while one-way notes from
  // other threads go out between their requests and replies, whole.
  std::vector<std::thread> threads;
  std::atomic<int> right{0}, noted{0};
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        const std::string text = std::to_string(t) + ":" + std::to_string(i);
        if (t >= 4) {
          noted += Call(*object, kEcho, text, tarn::zbrf::kFlagOneWay).ok;
        } else {
          right += Call(*object, kEcho, text).text == text;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(std::pair(right.load(), noted.load()), std::pair(100, 50));
  EXPECT_EQ(Call(*object, kEcho, "still whole").text, "still whole");
  // A stream of notes with no call among them, more than their socket holds,
  // is gathered by the service on its own and served in order.
  int sent = 0;
  for (int i = 0; i < 20000; ++i) sent += Call(*object, kEcho, "note " + std::to_string(i), tarn::zbrf::kFlagOneWay).ok;
  EXPECT_EQ(sent, 20000);
  EXPECT_EQ(Call(*object, kEcho, "last").previous, "note 19999");
  // A note too large to leave in one piece is served in its turn all the same.
  const std::string large(50000, 'n');
  EXPECT_TRUE(Call(*object, kEcho, "small", tarn::zbrf::kFlagOneWay).ok);
  EXPECT_TRUE(Call(*object, kEcho, large, tarn::zbrf::kFlagOneWay).ok);
  EXPECT_EQ(Call(*object, kEcho, "after").previous, large);
  EXPECT_TRUE(Call(*object, kEcho, large, tarn::zbrf::kFlagOneWay).ok);
  EXPECT_TRUE(Call(*object, kEcho, "small again", tarn::zbrf::kFlagOneWay).ok);
  a = Call(*object, kEcho, "after all");
  EXPECT_EQ(std::tuple(a.previous, a.flags), std::tuple("small again", 0));
  object.reset();
  EXPECT_TRUE(ProcessGone(child));
}

// Each ends the child for good: the spoilt call or the next one fails, and every later call at once.
TEST_F(ServiceManagerTest, AServiceThatDiesHangsOrTalksGarbageIsEndedForGood) {
  manager_.SetSandboxTimeout(30s);  // clamped to the 2 s maximum
  struct Case { const char* what; std::function<void(ZObject&)> spoil; Clock::duration least, most; };
  const std::vector<Case> cases = {
      {"killed",
       [](ZObject& o) {
         ASSERT_EQ(::kill(SandboxPid(o), SIGKILL), 0);
         EXPECT_FALSE(Call(o, kEcho, "x").ok);
       },
       0ms, 1500ms},
      {"killed, then asked one-way",
       [](ZObject& o) {
         const pid_t pid = SandboxPid(o);
         ASSERT_EQ(::kill(pid, SIGKILL), 0);
         siginfo_t info{};
         do {  // until it has died (and closed its end), without reaping it
           std::this_thread::sleep_for(1ms);
           ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG), 0);
         } while (info.si_pid == 0);
         EXPECT_FALSE(Call(o, kEcho, "x", tarn::zbrf::kFlagOneWay).ok);
       },
       0ms, 1500ms},
      {"garbage", [](ZObject& o) { EXPECT_FALSE(Call(o, kGarbage).ok); }, 0ms, 1500ms},
      // Bytes that nobody asked for, after a good answer, spoil the next call.
      {"trailing garbage",
       [](ZObject& o) {
         auto reply = ZParcel::CreateInstance();
         EXPECT_TRUE(o.Transact(kTrailingGarbage, ZParcel::CreateInstance(), reply, 0));
         EXPECT_EQ(reply->Data(), "ok");
       },
       0ms, 1500ms},
      {"silent", [](ZObject& o) { EXPECT_FALSE(Call(o, kHang).ok); }, 1900ms, 10s},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto object = Create("sandbox.test");
    ASSERT_TRUE(object);
    const pid_t pid = SandboxPid(*object);
    ASSERT_TRUE(Call(*object, kEcho, "x").ok);
    auto start = Clock::now();
    c.spoil(*object);
    EXPECT_GE(Clock::now() - start, c.least);
    EXPECT_LT(Clock::now() - start, c.most);
    start = Clock::now();
    EXPECT_FALSE(Call(*object, kEcho, "x").ok);
    EXPECT_LT(Clock::now() - start, 1500ms);
    EXPECT_EQ(SandboxPid(*object), 0);
    EXPECT_TRUE(ProcessGone(pid));
  }
}

TEST_F(ServiceManagerTest, TheSandboxRefusesWritesSocketsForeignFilesAndOtherPrograms) {
  env_.root().WriteFile("etc/readable/allowed.txt", "yes");
  env_.root().WriteFile("etc/secret.txt", "no");
  ::setenv("ZBRF_TEST_READABLE", env_.root().At("etc/readable").c_str(), 1);
  auto object = Create("sandbox.test");
  ::unsetenv("ZBRF_TEST_READABLE");
  ASSERT_TRUE(object);
  EXPECT_EQ(Call(*object, kOpenRead, env_.root().At("etc/readable/allowed.txt")).number, 0);
  EXPECT_EQ(Call(*object, kOpenWrite, env_.root().At("etc/readable/new.txt")).number, EPERM);
  EXPECT_FALSE(fs::exists(env_.root().At("etc/readable/new.txt")));
  EXPECT_EQ(Call(*object, kSocket).number, EPERM);
  if (::syscall(SYS_landlock_create_ruleset, nullptr, 0, 1 /* version */) >= 1) {  // a kernel with Landlock
    EXPECT_EQ(Call(*object, kOpenRead, env_.root().At("etc/secret.txt")).number, EACCES);
    EXPECT_EQ(Call(*object, kOpenRead, "/etc/passwd").number, EACCES);
  }
  const pid_t pid = SandboxPid(*object);
  EXPECT_FALSE(Call(*object, kExec).ok);  // running another program kills the service
  EXPECT_TRUE(ProcessGone(pid));
}

}  // namespace

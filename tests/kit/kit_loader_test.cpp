// Start-up of the kits, the loader's package states, kit integrity and the
// system events, through the kit manager and the loader with real kit libraries.
#include <dlfcn.h>

#include <chrono>
#include <fstream>

#include "kit/KitLibrary.h"
#include "kit_fixture.h"
#include "platform/commonutil/de.h"
#include "tarnkit/tarn_kit.h"

namespace {

using tarn::log::Level;
using tarn::test::Eventually;
using tarn::test::Package;

class KitStart : public tarn::test::KitFixture {
 protected:
  std::string LibraryOf(const std::string& package, const std::string& file) const {
    return KitDir(package) + file;
  }
  std::string MainLibrary() const { return LibraryOf("com.test.main", "libtest_main_kit.so"); }

  // Calls an export of a library this process has loaded, with a callback of our own.
  static std::string CallKit(const std::string& library, const char* api, const std::string& header = "{}",
                             const std::string& body = "{}") {
    void* module = ::dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (!module) return "<not loaded>";
    std::string answer = "<no answer>";
    if (auto function = reinterpret_cast<TarnKitApiFunction>(::dlsym(module, api))) {
      function(header.c_str(), body.c_str(), [&answer](char* text) { answer = text; });
    }
    ::dlclose(module);
    return answer;
  }

  static long long MillisecondsOf(const std::function<void()>& work) {
    auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
        .count();
  }
};

TEST_F(KitStart, InitLoadsTheStartUpKitsOnceAndLeavesTheOthersForLater) {
  Setup({Main(), Lazy()});
  EXPECT_TRUE(manager.Init());
  EXPECT_TRUE(manager.isInitComplete);
  EXPECT_TRUE(loader.HasKit("com.test.main"));
  EXPECT_FALSE(loader.HasKit("com.test.lazy"));
  EXPECT_EQ(1, hooks.registrations.load());
  EXPECT_TRUE(log.Has(Level::Info, "this kit is not need to load when loading all kit.packageName = "
                                   "com.test.lazy, startup = false(LoadManger::LoadAllKit)"));
  EXPECT_TRUE(log.Has(Level::Info, "LoadManger WorkerThread start. packageName = com.test.main"
                                   "(LoadManger::LoadWorkerThread)"));
  EXPECT_TRUE(log.Has(Level::Info, "invoke kit init begin. dllpath = " + MainLibrary() + "(LoadManger::LoadKit)"));
  EXPECT_TRUE(log.Has(Level::Info, "All kits receive signals.(LoadManger::RcvKitsSignal)"));
  EXPECT_TRUE(log.Has(Level::Info, "KitManagerApi.Init end. ret = 1(KitManagerApi::Init)"));
  EXPECT_EQ("{\"initCount\":1,\"sessionEvents\":0,\"lastSession\":\"\",\"networkEvents\":0,\"lastNetwork\":\"\"}",
            CallKit(MainLibrary(), "Stats"));
  // The event is created and handed to the sub-kit's record.
  auto& subKits = *config.kitConfigMap.at("com.test.main")->subKits;
  EXPECT_NE(nullptr, subKits.front()->hEvent);

  // A second Init changes nothing.
  EXPECT_TRUE(manager.Init());
  EXPECT_EQ(1, hooks.registrations.load());
  EXPECT_EQ(1u, Lines("ConfigManager.Init begin."));
  EXPECT_EQ(2u, Lines("KitManagerApi.Init begin."));
  EXPECT_EQ("1", tarn::test::ParseJson(CallKit(MainLibrary(), "Stats"))["initCount"].asString());
}

TEST_F(KitStart, InitWithoutConfigurationFailsButLetsRequestsIn) {
  EXPECT_FALSE(manager.Init());
  EXPECT_TRUE(manager.isInitComplete);
  EXPECT_TRUE(log.Has(Level::Error, "KitManagerApi.InitKitConfig, get config failed.(KitManagerApi::InitKitConfig)"));
  EXPECT_TRUE(log.Has(Level::Error, "KitManagerApi.InitKit, InitKitConfig failed.(KitManagerApi::InitKit)"));
  EXPECT_TRUE(log.Has(Level::Info, "KitManagerApi.Init end. ret = 0(KitManagerApi::Init)"));
  EXPECT_EQ(0u, Lines("Load Kits to wait signal begin"));
}

TEST_F(KitStart, WithNothingToLoadTheWaitRunsTheFullTwoSeconds) {
  Setup({Lazy()});
  const long long elapsed = MillisecondsOf([&] { EXPECT_TRUE(loader.LoadAllKit()); });
  EXPECT_GE(elapsed, 1950);
  EXPECT_TRUE(log.Has(Level::Info, "Load Kits to wait signal end(LoadManger::RcvKitsSignal)"));
  EXPECT_EQ(0u, Lines("All kits receive signals."));
  ASSERT_EQ(1u, loader.kitSignals.size());
}

TEST_F(KitStart, ProcessExitEndsTheWaitAtOnceAndStartsNoLoader) {
  VantrelThread::ThreadManager::ResetInstanceForTesting();
  VantrelThread::ThreadManager::Instance().processExitEvent->Set();
  Setup({Main(), Lazy()});
  ASSERT_TRUE(config.Init());
  const long long elapsed = MillisecondsOf([&] { EXPECT_TRUE(loader.LoadAllKit()); });
  EXPECT_LT(elapsed, 1500);
  EXPECT_TRUE(log.Has(Level::Info, "Received process exit signal.(LoadManger::RcvKitsSignal)"));
  EXPECT_TRUE(log.Has(Level::Error, "Create loadKit sub thread failed.(LoadManger::LoadAllKit)"));
  EXPECT_FALSE(loader.HasKit("com.test.main"));
  VantrelThread::ThreadManager::ResetInstanceForTesting();
}

TEST_F(KitStart, SlowKitDoesNotHoldStartUpAndFinishesLater) {
  Setup({{"com.test.slow", "Slow"}});
  EXPECT_TRUE(manager.Init());
  // Start-up went on while the kit's entry function still waits.
  EXPECT_TRUE(log.Has(Level::Info, "Load Kits to wait signal end(LoadManger::RcvKitsSignal)"));
  EXPECT_EQ(0u, Lines("All kits receive signals."));
  EXPECT_EQ(0u, Lines("invoke kit init success."));
  EXPECT_TRUE(loader.HasKit("com.test.slow"));  // the entry is made before the entry function runs

  void* module = ::dlopen(LibraryOf("com.test.slow", "libtest_slow_kit.so").c_str(), RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(nullptr, module);
  reinterpret_cast<void (*)()>(::dlsym(module, "ReleaseSlowInit"))();
  ::dlclose(module);
  EXPECT_TRUE(Eventually([&] {
    return log.Has(Level::Info, "LoadManger WorkerThread end. packageName = com.test.slow(LoadManger::LoadWorkerThread)");
  }));
  EXPECT_EQ(1u, Lines("invoke kit init success."));
}

TEST_F(KitStart, ManifestChangedByOneByteKeepsTheKitOutUntilItIsRightAgain) {
  Setup({Main()});
  const std::string manifest = KitDir("com.test.main") + "kitManifest.json";
  std::string original;
  {
    std::ifstream in(manifest, std::ios::binary);
    original.assign(std::istreambuf_iterator<char>(in), {});
  }
  AppendTo(manifest, " ");
  EXPECT_TRUE(manager.Init());  // the start goes on
  EXPECT_FALSE(loader.HasKit("com.test.main"));
  EXPECT_TRUE(log.Has(Level::Error, "dllPluginVerify is not equal to kitManifVerify!(LoadManger::CompareVerifyCode)"));
  EXPECT_TRUE(log.Has(Level::Info, "SubKitConfig kitManifVerify = " + DE::GetFileSha256Hex(manifest) +
                                       "(LoadManger::CompareVerifyCode)"));
  // Refused before the entry function: nothing of the kit ran.
  EXPECT_EQ(0u, Lines("invoke kit init begin."));

  root.WriteFile(kInstall + "/kits/com.test.main/kitManifest.json", original);
  EXPECT_TRUE(manager.InitKitsForUpdate());
  EXPECT_TRUE(loader.HasKit("com.test.main"));
  EXPECT_TRUE(log.Has(Level::Info, "KitManagerApi.InitKitsForUpdate end.(KitManagerApi::InitKitsForUpdate)"));
  EXPECT_EQ("1", tarn::test::ParseJson(CallKit(MainLibrary(), "Stats"))["initCount"].asString());
}

TEST_F(KitStart, SignatureIsTestedBeforeTheLibraryIsMapped) {
  Setup({Main()});
  ASSERT_TRUE(config.Init());
  AppendTo(MainLibrary(), "not signed any more");
  auto& subKit = *config.kitConfigMap.at("com.test.main")->subKits->front();
  EXPECT_FALSE(loader.LoadKit("com.test.main", subKit.fileName, "app", "Init", subKit.kitManifVerify));
  EXPECT_TRUE(log.Has(Level::Error, "LoadKit sign verify failed. dllpath = " + MainLibrary() + "(LoadManger::LoadKit)"));
  EXPECT_EQ(0u, Lines("Load kit to load LibraryEx begin"));
  EXPECT_FALSE(loader.HasKit("com.test.main"));

  // Without verification neither test runs, and the changed file loads.
  config.verifyEnabled = false;
  EXPECT_TRUE(loader.LoadKit("com.test.main", subKit.fileName, "app", "", subKit.kitManifVerify));
  EXPECT_EQ(1u, Lines("Not Verify version."));
  EXPECT_TRUE(loader.HasKit("com.test.main"));
  // Present: a further load is refused without a word.
  log.Clear();
  EXPECT_FALSE(loader.LoadKit("com.test.main", subKit.fileName, "app", "Init", subKit.kitManifVerify));
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(KitStart, LibraryWithoutTheVerificationStringPassesWithAnErrorLine) {
  Setup({{"com.test.nostring", "NoString"}});
  EXPECT_TRUE(manager.Init());
  EXPECT_TRUE(loader.HasKit("com.test.nostring"));
  EXPECT_TRUE(log.Has(Level::Error, "Get kitManifestVerifyStr from plugin failed. lenRet, lenWDllPlugin = 0, 0"
                                    "(LoadManger::CompareVerifyCode)"));
  EXPECT_EQ(1u, Lines("invoke kit init success."));
}

TEST_F(KitStart, VerificationStringIsFoldedOnTheLibrarySideOnly) {
  InstallKit("com.test.main");
  std::string error;
  void* module = tarn::kit::OpenLibrary(MainLibrary(), error);
  ASSERT_NE(nullptr, module) << error;
  const std::string digest = DE::GetFileSha256Hex(KitDir("com.test.main") + "kitManifest.json");
  ASSERT_EQ(64u, digest.size());
  EXPECT_TRUE(loader.CompareVerifyCode(module, digest));
  EXPECT_TRUE(log.Has(Level::Info, "Get kitManifestVerifyStr from plugin success. lenRet, lenWPluginStr = 64, 64"
                                   "(LoadManger::CompareVerifyCode)"));
  EXPECT_TRUE(log.Has(Level::Info, "dllPluginVerify = " + digest + "(LoadManger::CompareVerifyCode)"));

  std::string lower = digest;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_FALSE(loader.CompareVerifyCode(module, lower));
  EXPECT_TRUE(loader.CompareVerifyCode(module, ""));  // a digest that failed: nothing to compare
  config.verifyEnabled = false;
  EXPECT_TRUE(loader.CompareVerifyCode(module, "ANYTHING"));
  EXPECT_TRUE(log.Has(Level::Info, "Not Verify version.(LoadManger::CompareVerifyCode)"));
  tarn::kit::CloseLibrary(module);
}

TEST_F(KitStart, SystemEventsReachTheKitThatDeclaresThem) {
  Setup({Main(), Lazy()});
  ASSERT_TRUE(manager.Init());
  ConvertedRequest session;
  session.api_name = "Main.OnWinSessionChanged";
  session.header = "7";
  session.body = "3";
  ResponseStatus status;
  EXPECT_TRUE(manager.NotifyWinEventToKit(session, status));
  EXPECT_EQ("0", status.status_code);
  ConvertedRequest network;
  network.api_name = "MAIN.ONWINNETWORKCHANGED";
  network.header = "-1";
  EXPECT_TRUE(manager.NotifyWinEventToKit(network, status));
  EXPECT_EQ("0", status.status_code);
  Json::Value stats = tarn::test::ParseJson(CallKit(MainLibrary(), "Stats"));
  EXPECT_EQ("7/3", stats["lastSession"].asString());
  EXPECT_EQ("-1", stats["lastNetwork"].asString());
  // The kit's answer to an event is only noted.
  EXPECT_EQ(2u, log.Count(Level::Info, "LoadManger.NotifyWinEventToKit success.packageName = com.test.main"
                                       "(LoadManger::NotifyWinEventToKit)"));
  EXPECT_EQ(2u, Lines("KitManagerApi.NotifyWinEventToKit end."));

  // A kit that isn't loaded isn't loaded for an event.
  ConvertedRequest lazy;
  lazy.api_name = "Lazy.Echo";
  ResponseStatus lazyStatus;
  EXPECT_TRUE(manager.NotifyWinEventToKit(lazy, lazyStatus));
  EXPECT_EQ("907135001", lazyStatus.status_code);
  EXPECT_TRUE(log.Has(Level::Error, "LoadManger.NotifyWinEventToKit failed. unload packageName = com.test.lazy"
                                    "(LoadManger::NotifyWinEventToKit)"));
  EXPECT_FALSE(loader.HasKit("com.test.lazy"));

  ConvertedRequest unknown;
  unknown.api_name = "Nobody.OnWinSessionChanged";
  ResponseStatus unknownStatus;
  EXPECT_FALSE(manager.NotifyWinEventToKit(unknown, unknownStatus));
  EXPECT_EQ("907135001", unknownStatus.status_code);
  EXPECT_EQ("API is not supported. ", unknownStatus.error_reason);
  EXPECT_TRUE(log.Has(Level::Error, "uri is not supported.(KitManagerApi::NotifyWinEventToKit)"));
  EXPECT_TRUE(log.Has(Level::Error, "nobody.onwinsessionchanged(KitManagerApi::NotifyWinEventToKit)"));

  // An api the manifest names but the library doesn't export.
  ConvertedRequest missing;
  missing.api_name = "Main.Missing";
  ResponseStatus missingStatus;
  EXPECT_TRUE(manager.NotifyWinEventToKit(missing, missingStatus));
  EXPECT_EQ("907135001", missingStatus.status_code);
  EXPECT_TRUE(log.Has(Level::Error, "LoadManger.NotifyWinEventToKit failed.packageName = com.test.main127"
                                    "(LoadManger::NotifyWinEventToKit)"));
}

TEST_F(KitStart, SyncMessageIdIsReadFromTheAnswersHeaderOnly) {
  struct Case {
    const char* text;
    const char* id;
    bool errorLine;
  } cases[] = {
      {R"({"header":{"syncMessageId":"17"},"body":{}})", "17", false},
      {R"({"header":{"syncMessageId":18}})", "18", false},
      {R"({"body":{"syncMessageId":"19"}})", "", false},
      {R"(not json "syncMessageId")", "", true},
      {R"(["syncMessageId"])", "", true},
      {R"({"header":{"syncMessageId":{"a":1}}})", "", true},
  };
  for (const Case& c : cases) {
    log.Clear();
    std::string id;
    loader.GetJsonFieldForSyncMessageId(c.text, id);
    EXPECT_EQ(c.id, id) << c.text;
    EXPECT_EQ(c.errorLine, log.Has(Level::Error, "convertReqMess data format error."
                                                 "(LoadManger::GetJsonFieldForSyncMessageId)"))
        << c.text;
  }
}

}  // namespace

// Start-up of the kits, kit integrity and the library operations, through the
// kit manager and the loader with real kit libraries.
#include <dlfcn.h>

#include <cstdlib>

#include "kit/KitLibrary.h"
#include "kit_fixture.h"
#include "platform/commonutil/de.h"
#include "support/swapping_checker.h"

namespace {

using tarn::log::Level;
using tarn::test::Eventually;

class KitStart : public tarn::test::KitFixture {
 protected:
  std::string MainLibrary() const { return KitDir("com.test.main") + "libtest_main_kit.so"; }
};

TEST_F(KitStart, InitWithoutConfigurationFailsButLetsRequestsIn) {
  EXPECT_FALSE(manager.Init());
  EXPECT_TRUE(manager.isInitComplete);
  EXPECT_TRUE(logs_.Has(Level::Error, "KitManagerApi.InitKitConfig, get config failed.(KitManagerApi::InitKitConfig)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "KitManagerApi.Init end. ret = 0(KitManagerApi::Init)"));
}

TEST_F(KitStart, InitLoadsTheStartUpKitsOnceAndLeavesTheOthersForLater) {
  Setup({Main(), Lazy()});
  EXPECT_TRUE(manager.Init());
  EXPECT_TRUE(loader.HasKit("com.test.main"));
  EXPECT_FALSE(loader.HasKit("com.test.lazy"));
  EXPECT_TRUE(logs_.Has(Level::Info, "this kit is not need to load when loading all kit.packageName = "
                                     "com.test.lazy, startup = false(LoadManger::LoadAllKit)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "invoke kit init begin. dllpath = " + MainLibrary() + "(LoadManger::LoadKit)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "All kits receive signals.(LoadManger::RcvKitsSignal)"));
  EXPECT_NE(nullptr, config.kitConfigMap.at("com.test.main")->subKits->front()->hEvent);
  // A second Init changes nothing.
  EXPECT_TRUE(manager.Init());
  EXPECT_EQ(1u, Lines("ConfigManager.Init begin."));
  EXPECT_EQ(1u, Lines("invoke kit init success."));
}

TEST_F(KitStart, ProcessExitEndsTheWaitAtOnceAndStartsNoLoader) {
  VantrelThread::ThreadManager::ResetInstanceForTesting();
  VantrelThread::ThreadManager::Instance().processExitEvent->Set();
  Setup({Main(), Lazy()});
  ASSERT_TRUE(config.Init());
  EXPECT_TRUE(loader.LoadAllKit());
  EXPECT_TRUE(logs_.Has(Level::Info, "Received process exit signal.(LoadManger::RcvKitsSignal)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "Create loadKit sub thread failed.(LoadManger::LoadAllKit)"));
  EXPECT_FALSE(loader.HasKit("com.test.main"));
  VantrelThread::ThreadManager::ResetInstanceForTesting();
}

TEST_F(KitStart, SlowKitDoesNotHoldStartUpAndFinishesLater) {
  Setup({{"com.test.slow", "Slow"}});
  EXPECT_TRUE(manager.Init());
  // Start-up went on while the kit's entry function still waits.
  EXPECT_TRUE(logs_.Has(Level::Info, "Load Kits to wait signal end(LoadManger::RcvKitsSignal)"));
  EXPECT_EQ(0u, Lines("All kits receive signals."));
  EXPECT_EQ(0u, Lines("invoke kit init success."));
  EXPECT_TRUE(loader.HasKit("com.test.slow"));  // the entry is made before the entry function runs

  void* module = ::dlopen((KitDir("com.test.slow") + "libtest_slow_kit.so").c_str(), RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(nullptr, module);
  reinterpret_cast<void (*)()>(::dlsym(module, "ReleaseSlowInit"))();
  ::dlclose(module);
  EXPECT_TRUE(Eventually([&] {
    return logs_.Has(Level::Info, "LoadManger WorkerThread end. packageName = com.test.slow(LoadManger::LoadWorkerThread)");
  }));
  EXPECT_EQ(1u, Lines("invoke kit init success."));
}

TEST_F(KitStart, SignatureIsTestedBeforeTheLibraryIsMapped) {
  Setup({Main()});
  ASSERT_TRUE(config.Init());
  AppendTo(MainLibrary(), "not signed any more");
  auto& subKit = *config.kitConfigMap.at("com.test.main")->subKits->front();
  EXPECT_FALSE(loader.LoadKit("com.test.main", subKit.fileName, "app", "Init", subKit.kitManifVerify));
  EXPECT_TRUE(logs_.Has(Level::Error, "LoadKit sign verify failed. dllpath = " + MainLibrary() + "(LoadManger::LoadKit)"));
  EXPECT_EQ(0u, Lines("Load kit to load LibraryEx begin"));
  EXPECT_FALSE(loader.HasKit("com.test.main"));

  // Without verification neither test runs, and the changed file loads.
  config.verifyEnabled = false;
  EXPECT_TRUE(loader.LoadKit("com.test.main", subKit.fileName, "app", "", subKit.kitManifVerify));
  EXPECT_EQ(1u, Lines("Not Verify version."));
  EXPECT_TRUE(loader.HasKit("com.test.main"));
  // Present: a further load is refused without a word.
  logs_.Clear();
  EXPECT_FALSE(loader.LoadKit("com.test.main", subKit.fileName, "app", "Init", subKit.kitManifVerify));
  EXPECT_TRUE(logs_.Records().empty());
}

// The file whose signature passed is the one that runs: a signed library put
// in its place right after the test is never mapped.
TEST_F(KitStart, TheLibraryThatRunsIsTheOneTested) {
  Setup({Main()});
  ASSERT_TRUE(config.Init());
  InstallKit("com.test.lazy");
  ::unsetenv("TARN_TEST_KIT_RAN_Lazy");
  tarn::test::SwappingChecker swap(MainLibrary(), KitDir("com.test.lazy") + "libtest_lazy_kit.so");
  tarn::security::FileSignatureChecker::SetInstanceForTesting(&swap);
  auto& subKit = *config.kitConfigMap.at("com.test.main")->subKits->front();
  const bool loaded = loader.LoadKit("com.test.main", subKit.fileName, "app", "Init", subKit.kitManifVerify);
  tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
  EXPECT_FALSE(swap.armed);
  EXPECT_TRUE(loaded);
  EXPECT_EQ(nullptr, std::getenv("TARN_TEST_KIT_RAN_Lazy"));
}

TEST_F(KitStart, VerificationStringIsComparedExactlyAndMayBeMissing) {
  Setup({{"com.test.nostring", "NoString"}});
  EXPECT_TRUE(manager.Init());
  EXPECT_TRUE(loader.HasKit("com.test.nostring"));
  EXPECT_TRUE(logs_.Has(Level::Error, "Get kitManifestVerifyStr from plugin failed. lenRet, lenWDllPlugin = 0, 0"
                                      "(LoadManger::CompareVerifyCode)"));

  InstallKit("com.test.main");
  std::string error;
  tarn::kit::KitFile file(MainLibrary());
  void* module = file.Load(error);
  ASSERT_NE(nullptr, module) << error;
  const std::string digest = DE::GetFileSha256Hex(KitDir("com.test.main") + "kitManifest.json");
  ASSERT_EQ(64u, digest.size());
  EXPECT_TRUE(loader.CompareVerifyCode(module, digest));
  EXPECT_TRUE(logs_.Has(Level::Info, "dllPluginVerify = " + digest + "(LoadManger::CompareVerifyCode)"));
  std::string lower = digest;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_FALSE(loader.CompareVerifyCode(module, lower));
  EXPECT_TRUE(loader.CompareVerifyCode(module, ""));  // a digest that failed: nothing to compare
  tarn::kit::CloseLibrary(module);
}

TEST_F(KitStart, ExportsAreTheLibrarysOwn) {
  InstallKit("com.test.main");
  tarn::kit::KitFile file(MainLibrary());
  std::string error;
  void* module = file.Load(error);
  ASSERT_NE(nullptr, module) << error;
  EXPECT_NE(nullptr, tarn::kit::FindExport(module, "Echo"));
  EXPECT_EQ(nullptr, tarn::kit::FindExport(module, "echo"));  // exact case
  // dlsym would find these in the library's dependencies.
  for (const char* foreign : {"malloc", "TestKitEchoKey"}) {
    ASSERT_NE(nullptr, ::dlsym(module, foreign));
    EXPECT_EQ(nullptr, tarn::kit::FindExport(module, foreign));
  }
  tarn::kit::CloseLibrary(module);
  tarn::kit::KitFile missing(install + "kits/nothing.so");
  EXPECT_EQ(nullptr, missing.Load(error));
  EXPECT_NE(std::string::npos, error.find("nothing.so")) << error;
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
    SCOPED_TRACE(c.text);
    logs_.Clear();
    std::string id;
    loader.GetJsonFieldForSyncMessageId(c.text, id);
    EXPECT_EQ(c.id, id);
    EXPECT_EQ(c.errorLine,
              logs_.Has(Level::Error, "convertReqMess data format error.(LoadManger::GetJsonFieldForSyncMessageId)"));
  }
}

}  // namespace

// Choosing and reading remoteConfig.json: the copies, the package list, the
// force update flags and the stop of the service.
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "config_fixture.h"
#include "platform/commonutil/de.h"

namespace fs = std::filesystem;
using tarn::log::Level;

namespace {

constexpr const char* kAccountManifest = R"({
  "version": "2.0.0.1", "fileName": "libaccount.so",
  "kits": [ { "kitName": "Account", "apiLevel": "5", "apis": [ { "apiName": "Request" } ] } ] })";

constexpr const char* kMailManifest = R"({
  "version": "1.0", "fileName": "libmail.so",
  "kits": [ { "kitName": "Mail", "apiLevel": 2, "apis": [ { "apiName": "Send" } ] } ] })";

class RemoteConfig : public tarn::test::ConfigFixture {
 protected:
  void SetUp() override {
    ConfigFixture::SetUp();
    WriteManifest("com.account", kAccountManifest);
    WriteManifest("com.mail", kMailManifest);
  }
  std::string InstalledPath() const { return install + "config/remoteConfig.json"; }

  std::shared_ptr<PackageInfo> Package(std::size_t index) {
    auto list = cm.remoteConfig.packageInfoList;
    if (!list || index >= list->size()) return nullptr;
    return *std::next(list->begin(), static_cast<long>(index));
  }

  // One package "com.account" with kit "Account" and the given force update entry.
  static std::string Forced(const std::string& forceUpdate, const std::string& codes,
                            const std::string& top = "") {
    return R"({)" + top + R"("packageInfo":[{"packageName":"com.account","forceUpdate":)" +
           forceUpdate + R"(,"invalidVersionCode":)" + codes +
           R"(,"subKits":[{"kitName":"Account"}]}]})";
  }
};

TEST_F(RemoteConfig, UnsoundCacheFallsBackToTheInstalledCopySilently) {
  WriteInstalled(OnePackage("com.account", "Account"));
  const char* unsound[] = {
      R"({"packageInfo":[{"packageName":"com.mail")",   // truncated
      R"([{"packageInfo":[]}])",                        // root is an array
      R"({"packageInfo":{"packageName":"com.mail"}})",  // packageInfo is an object
      R"({"TimerPeriodTarnCoreUpdate":"60000"})",       // no packageInfo
      "",
  };
  std::string path;
  GetRemoteConfigPath(path);
  EXPECT_EQ(path, InstalledPath());  // no cache at all
  for (const char* text : unsound) {
    WriteCached(text);
    GetRemoteConfigPath(path);
    EXPECT_EQ(path, InstalledPath()) << text;
  }
  log.Clear();
  ASSERT_TRUE(cm.Init());
  EXPECT_TRUE(ErrorLines().empty());
  EXPECT_TRUE(log.Has(Level::Info, "ConfigManager.Init begin.(ConfigManager::Init)"));
  EXPECT_TRUE(log.Has(Level::Info, "ConfigManager.Init end.(ConfigManager::Init)"));
  EXPECT_EQ(cm.kitApiDispathMap.count("Account.Request"), 1u);
  EXPECT_EQ(cm.kitConfigMap.count("com.mail"), 0u);
  EXPECT_EQ(service.stops, 0);
}

TEST_F(RemoteConfig, SoundCacheWinsEvenWithoutAnInstalledCopy) {
  WriteCached("// fetched\n" + OnePackage("com.mail", "Mail"));
  std::string path;
  GetRemoteConfigPath(path);
  EXPECT_EQ(path, install + "config/cache/remoteConfig.json");
  ASSERT_TRUE(cm.Init());
  EXPECT_EQ(cm.kitApiDispathMap.count("Mail.Send"), 1u);
  EXPECT_EQ(service.stops, 0);

  // An empty array is sound too; with no package read the map can't be built.
  cm.ResetForTesting();
  WriteCached(R"({"packageInfo":[]})");
  WriteInstalled(OnePackage("com.account", "Account"));
  EXPECT_FALSE(cm.Init());
  EXPECT_TRUE(cm.kitConfigMap.empty());
}

TEST_F(RemoteConfig, MissingInstalledCopyAsksTheServiceToStop) {
  EXPECT_FALSE(cm.Init());
  EXPECT_EQ(service.stops, 1);
  EXPECT_TRUE(log.Has(Level::Error, "Remoteconfig " + InstalledPath() +
                                        " invalid, cannot start error: 2 Stop TarnCoreService and "
                                        "Exit TarnCoreContainer.(ConfigManager::ReadRemoteConfig)"));
  EXPECT_TRUE(log.Has(Level::Error, "ReadRemoteConfig failed.(ConfigManager::Init)"));
  EXPECT_FALSE(log.Contains("ConfigManager.Init end."));

  log.Clear();
  WriteInstalled("packageInfo = []");
  WriteCached("{ broken");
  EXPECT_FALSE(cm.ReadRemoteConfig());
  EXPECT_EQ(service.stops, 2);
  EXPECT_TRUE(log.Has(Level::Error, "get remoteConfig faield, data parse error. file: " +
                                        InstalledPath() + "(ConfigManager::ReadRemoteConfig)"));
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 604800000u);  // nothing applied
}

TEST_F(RemoteConfig, ForceUpdateOneWithTheInstalledVersionListed) {
  SetVersion("5.3.0.300");
  WriteInstalled(Forced(R"("1")", R"(["5.2.0.1","5.3.0.300",7])",
                        R"("TimerPeriodTarnCoreUpdate":"3600000","forceUpgradeTimeInterval":"2",)"));
  ASSERT_TRUE(cm.ReadRemoteConfig());
  EXPECT_EQ(cm.remoteConfig.version, "5.3.0.300");
  EXPECT_EQ(cm.remoteConfig.level, "3");
  EXPECT_TRUE(log.Has(Level::Info, "The current x64 TARNCORE version = 5.3.0.300(ConfigManager::ReadRemoteConfig)"));
  auto package = Package(0);
  ASSERT_NE(package, nullptr);
  EXPECT_EQ(package->forceUpdate, "1");
  ASSERT_NE(package->invalidVersionCodes, nullptr);
  EXPECT_EQ(*package->invalidVersionCodes,
            (std::list<std::string>{"5.2.0.1", "5.3.0.300", "7"}));  // later codes still read
  // The forced package overrides TimerPeriodTarnCoreUpdate.
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 172800000u);
  EXPECT_TRUE(log.Has(Level::Info, "ForceUpdate current install version = 5.3.0.300packageName = "
                                   "com.account forceUpdate = 1(ConfigManager::GetPackageInfoList)"));
  EXPECT_TRUE(log.Has(Level::Info,
                      "ForceUpdate invalidVersionCode list = 7(ConfigManager::GetPackageInfoList)"));
  std::string flag;
  cm.GetForceUpdateFlag("Account", flag);
  EXPECT_EQ(flag, "1");
}

TEST_F(RemoteConfig, ForceUpdateFlagAndPeriodByCase) {
  struct Case {
    const char* version;  // nullptr: none in the registry
    std::string text;
    const char* flag;
    std::uint32_t period;
    bool codesRead;
  } cases[] = {
      // "1" without the interval is one day.
      {"5.3.0.300", Forced(R"("1")", R"(["5.3.0.300"])", R"("TimerPeriodTarnCoreUpdate":3600000,)"), "1", 86400000u, true},
      // "1" with the version not listed is "0" and the interval isn't read.
      {"5.3.0.300", Forced("1", R"(["5.3.0.299","5.3.0.3000"])",
                          R"("TimerPeriodTarnCoreUpdate":3600000,"forceUpgradeTimeInterval":"abc",)"), "0", 3600000u, true},
      // Only "1" shortens the period.
      {"5.3.0.300", Forced(R"("2")", R"(["5.3.0.300"])", R"("forceUpgradeTimeInterval":"3",)"), "2", 86400000u, true},
      {"5.3.0.300", Forced(R"("3")", R"({"not":"read"})"), "0", 86400000u, false},
      // Without a registry version an empty code matches.
      {nullptr, Forced("1", R"(["5.3.0.300",""])"), "1", 86400000u, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    cm.ResetForTesting();
    log.Clear();
    if (c.version) SetVersion(c.version); else fs::remove(root.At(kVtid + "/Version"));
    WriteInstalled(c.text);
    ASSERT_TRUE(cm.ReadRemoteConfig());
    ASSERT_NE(Package(0), nullptr);
    EXPECT_EQ(Package(0)->forceUpdate, c.flag);
    EXPECT_EQ(Package(0)->invalidVersionCodes != nullptr, c.codesRead);
    EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, c.period);
    EXPECT_TRUE(c.codesRead || !log.Contains("ForceUpdate current install version"));
  }
}

TEST_F(RemoteConfig, ForceUpdateFlagFollowsTheRemoteSubKitsNotTheManifest) {
  SetVersion("9");
  // The manifest of com.mail has kit "Mail"; the remote entry names "Ghost" only.
  WriteInstalled(R"({"packageInfo":[
      {"packageName":"com.account","subKits":[{"kitName":"Account"}]},
      {"packageName":"com.mail","forceUpdate":"2","invalidVersionCode":["9"],
       "subKits":[{"kitName":"Ghost"}]}]})");
  ASSERT_TRUE(cm.Init());
  std::string flag = "x";
  cm.GetForceUpdateFlag("Ghost", flag);
  EXPECT_EQ(flag, "2");
  cm.GetForceUpdateFlag("Account", flag);
  EXPECT_EQ(flag, "0");
  EXPECT_FALSE(log.Contains("Not exist kit"));
  cm.GetForceUpdateFlag("Mail", flag);
  EXPECT_EQ(flag, "0");
  EXPECT_TRUE(log.Has(Level::Info, "Not exist kit = Mail forceUpdate = 0"
                                   "(ConfigManager::GetForceUpdateFlag)"));
  EXPECT_TRUE(cm.kitConfigMap.at("com.mail")->subKits->empty());
}

TEST_F(RemoteConfig, ServiceInfoIsPassedOnWhenItIsAFile) {
  root.WriteFile(kInstall + "/kits/com.account/ServiceInfo.json", "not read here");
  root.MakeDir(kInstall + "/kits/com.mail/ServiceInfo.json");  // a directory is no file
  WriteInstalled(R"({"packageInfo":[{"packageName":"com.account","subKits":[{"kitName":"Account"}]},
                                     {"packageName":"com.mail","subKits":[{"kitName":"Mail"}]}]})");
  ASSERT_TRUE(cm.Init());
  ASSERT_EQ(registrar.paths.size(), 1u);
  EXPECT_EQ(registrar.paths[0], install + "kits/com.account/ServiceInfo.json");
  EXPECT_TRUE(log.Has(Level::Info,
                      "com.mail ServiceInfo.json not found(ConfigManager::ReadKitServiceForPackage)"));
  registrar.answer = false;
  EXPECT_FALSE(cm.ReadKitServiceForPackage("com.account"));
  tarn::config::SetServiceInfoRegistrar(nullptr);
  EXPECT_FALSE(cm.ReadKitServiceForPackage("com.account"));
}

TEST_F(RemoteConfig, WrongKindsThrowOutOfInit) {
  const char* wrong[] = {
      R"([{"packageInfo":[]}])",
      R"({"packageInfo":{"a":{"packageName":"com.account"}}})",
      R"({"TimerPeriodTarnCoreUpdate":{"ms":1},"packageInfo":[]})",
      R"({"packageInfo":[{"packageName":["com.account"]}]})",
      R"({"packageInfo":[{"packageName":"com.account","subKits":[{"kitName":{}}]}]})",
      R"({"packageInfo":[{"packageName":"com.account","forceUpdate":"1","invalidVersionCode":[[1]]}]})",
      R"({"packageInfo":["com.account"]})",
  };
  for (const char* text : wrong) {
    cm.ResetForTesting();
    WriteInstalled(text);
    EXPECT_THROW(cm.Init(), Json::LogicError) << text;
  }
  EXPECT_EQ(service.stops, 0);
  // A package record is in the list before its fields are read.
  cm.ResetForTesting();
  WriteInstalled(R"({"packageInfo":[{"packageName":"com.account","subKits":[{"kitName":"Account"}]},
                                     {"packageName":{"bad":1}}]})");
  EXPECT_THROW(cm.Init(), Json::LogicError);
  EXPECT_EQ(cm.remoteConfig.packageInfoList->size(), 2u);
  EXPECT_EQ(cm.kitConfigMap.count("com.account"), 1u);
}

TEST_F(RemoteConfig, RefreshReplacesThePackageListButKeepsOldKitsAndUris) {
  WriteInstalled(R"({"packageInfo":[{"packageName":"com.account","subKits":[{"kitName":"Account"}]},
                                     {"packageName":"com.mail","subKits":[{"kitName":"Mail"}]}]})");
  ASSERT_TRUE(cm.Init());
  auto keptRecord = cm.kitApiDispathMap.at("Mail.Send");
  auto oldList = cm.remoteConfig.packageInfoList;

  WriteCached(OnePackage("com.account", "Account"));
  ASSERT_TRUE(cm.Init());
  EXPECT_NE(cm.remoteConfig.packageInfoList, oldList);
  EXPECT_EQ(cm.remoteConfig.packageInfoList->size(), 1u);
  EXPECT_EQ(oldList->size(), 2u);  // a reader's copy survives
  EXPECT_EQ(cm.kitConfigMap.count("com.mail"), 1u);
  // The dropped package keeps its entry, and with it its uris.
  EXPECT_EQ(cm.kitApiDispathMap.at("Mail.Send")->packageName, "com.mail");
  EXPECT_EQ(keptRecord->uri, "Mail.Send");
  std::string flag;
  cm.GetForceUpdateFlag("Mail", flag);
  EXPECT_EQ(flag, "0");
  EXPECT_TRUE(log.Contains("Not exist kit = Mail"));
}

// The shipped demo configuration reads with the shipped demo manifests.
TEST_F(RemoteConfig, DemoInstallationReads) {
  const std::string source = tarn::test::SourceDir();
  fs::create_directories(install + "config");
  fs::copy_file(source + "/demo/install/config/remoteConfig.json", InstalledPath(),
                fs::copy_options::overwrite_existing);
  for (const char* package : {"com.vantrel.demo", "com.vantrel.demo.lazy"}) {
    fs::create_directories(install + "kits/" + package);
    fs::copy_file(source + "/kits/" + package + "/kitManifest.json", ManifestPath(package));
  }
  // The scope service's package has a manifest without kits.
  fs::create_directories(install + "kits/com.vantrel.scopeservice");
  fs::copy_file(source + "/services/scope/package/kitManifest.json",
                ManifestPath("com.vantrel.scopeservice"));
  ASSERT_TRUE(cm.Init());
  EXPECT_TRUE(ErrorLines().empty());
  for (const char* uri : {"Demo.Echo", "Demo.Late", "Demo.Broadcast", "DemoLazy.Hello"}) {
    EXPECT_EQ(cm.kitApiDispathMap.count(uri), 1u) << uri;
  }
  EXPECT_EQ(cm.kitApiDispathMap.at("Demo.Echo")->startup, "true");
  EXPECT_EQ(cm.kitApiDispathMap.at("DemoLazy.Hello")->startup, "false");
  EXPECT_EQ(cm.kitApiDispathMap.at("DemoLazy.Hello")->packageName, "com.vantrel.demo.lazy");
  EXPECT_EQ(cm.kitApiDispathMap.at("Demo.Echo")->kitManifVerify,
            DE::GetFileSha256Hex(ManifestPath("com.vantrel.demo")));
}

}  // namespace

// Choosing and reading remoteConfig.json: the copies, the package list, the
// force update flags and the stop of the service.
#include <json/json.h>

#include <filesystem>

#include "config_fixture.h"
#include "platform/commonutil/de.h"

namespace fs = std::filesystem;
using tarn::log::Level;

namespace {

class RemoteConfig : public tarn::test::ConfigFixture {
 protected:
  void SetUp() override {
    ConfigFixture::SetUp();
    WriteManifest("com.account", R"({"version": "2.0.0.1", "fileName": "libaccount.so",
        "kits": [ { "kitName": "Account", "apiLevel": "5", "apis": [ { "apiName": "Request" } ] } ] })");
    WriteManifest("com.mail", R"({"version": "1.0", "fileName": "libmail.so",
        "kits": [ { "kitName": "Mail", "apiLevel": 2, "apis": [ { "apiName": "Send" } ] } ] })");
  }
  std::string InstalledPath() const { return install + "config/remoteConfig.json"; }
  std::string ChosenPath() {
    std::string path;
    GetRemoteConfigPath(path);
    return path;
  }
  std::string Flag(const std::string& kit) {
    std::string flag = "x";
    cm.GetForceUpdateFlag(kit, flag);
    return flag;
  }
};

TEST_F(RemoteConfig, UnsoundCacheFallsBackToTheInstalledCopySilently) {
  WriteInstalled(OnePackage("com.account", "Account"));
  EXPECT_EQ(ChosenPath(), InstalledPath());  // no cache at all
  for (const char* text : {
           R"({"packageInfo":[{"packageName":"com.mail")",   // truncated
           R"([{"packageInfo":[]}])",                        // root is an array
           R"({"packageInfo":{"packageName":"com.mail"}})",  // packageInfo is an object
           R"({"TimerPeriodTarnCoreUpdate":"60000"})",       // no packageInfo
           ""}) {
    WriteCached(text);
    EXPECT_EQ(ChosenPath(), InstalledPath()) << text;
  }
  log.Clear();
  ASSERT_TRUE(cm.Init());
  EXPECT_TRUE(Errors().empty());
  EXPECT_EQ(cm.kitApiDispathMap.count("Account.Request"), 1u);
  EXPECT_EQ(cm.kitConfigMap.count("com.mail"), 0u);
  EXPECT_EQ(service.stops, 0);

  // A sound cache wins, comments and all; an empty list is sound too, but
  // with no package read the map can't be built.
  WriteCached("// fetched\n" + OnePackage("com.mail", "Mail"));
  EXPECT_EQ(ChosenPath(), install + "config/cache/remoteConfig.json");
  cm.ResetForTesting();
  WriteCached(R"({"packageInfo":[]})");
  EXPECT_FALSE(cm.Init());
  EXPECT_TRUE(cm.kitConfigMap.empty());
  EXPECT_EQ(service.stops, 0);
}

TEST_F(RemoteConfig, MissingOrBrokenInstalledCopyAsksTheServiceToStop) {
  // Missing, then a directory where the file belongs: both fail to open.
  for (const char* error : {"2", "21"}) {
    EXPECT_FALSE(cm.Init());
    EXPECT_TRUE(log.Has(Level::Error, "Remoteconfig " + InstalledPath() + " invalid, cannot start error: " + error +
                                          " Stop TarnCoreService and Exit TarnCoreContainer."
                                          "(ConfigManager::ReadRemoteConfig)"));
    fs::create_directories(InstalledPath());
  }
  EXPECT_EQ(service.stops, 2);
  EXPECT_TRUE(log.Has(Level::Error, "ReadRemoteConfig failed.(ConfigManager::Init)"));
  EXPECT_FALSE(log.Contains("ConfigManager.Init end."));
  fs::remove(InstalledPath());

  WriteInstalled("packageInfo = []");
  WriteCached("{ broken");
  EXPECT_FALSE(cm.ReadRemoteConfig());
  EXPECT_EQ(service.stops, 3);
  EXPECT_TRUE(log.Has(Level::Error, "get remoteConfig faield, data parse error. file: " + InstalledPath() +
                                        "(ConfigManager::ReadRemoteConfig)"));
  EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, 604800000u);  // nothing applied
}

TEST_F(RemoteConfig, ForceUpdateFlagAndPeriodByCase) {
  auto forced = [](const std::string& flag, const std::string& codes, const std::string& top = "") {
    return "{" + top + R"("packageInfo":[{"packageName":"com.account","forceUpdate":)" + flag +
           R"(,"invalidVersionCode":)" + codes + R"(,"subKits":[{"kitName":"Account"}]}]})";
  };
  struct Case {
    const char* version;  // nullptr: none in the registry
    std::string text;
    const char* flag;
    std::uint32_t period;
    std::vector<std::string> codes;  // empty: the list isn't read
  } cases[] = {
      // "1" with the installed version listed overrides TimerPeriodTarnCoreUpdate; later codes are still read.
      {"5.3.0.300", forced(R"("1")", R"(["5.2.0.1","5.3.0.300",7])",
                           R"("TimerPeriodTarnCoreUpdate":"3600000","forceUpgradeTimeInterval":"2",)"),
       "1", 172800000u, {"5.2.0.1", "5.3.0.300", "7"}},
      // Without the interval it is one day.
      {"5.3.0.300", forced(R"("1")", R"(["5.3.0.300"])", R"("TimerPeriodTarnCoreUpdate":3600000,)"), "1", 86400000u,
       {"5.3.0.300"}},
      // With the version not listed it is "0" and the interval isn't read.
      {"5.3.0.300", forced("1", R"(["5.3.0.299","5.3.0.3000"])",
                           R"("TimerPeriodTarnCoreUpdate":3600000,"forceUpgradeTimeInterval":"abc",)"),
       "0", 3600000u, {"5.3.0.299", "5.3.0.3000"}},
      // Only "1" shortens the period.
      {"5.3.0.300", forced(R"("2")", R"(["5.3.0.300"])", R"("forceUpgradeTimeInterval":"3",)"), "2", 86400000u,
       {"5.3.0.300"}},
      {"5.3.0.300", forced(R"("3")", R"({"not":"read"})"), "0", 86400000u, {}},
      // Without a registry version an empty code matches.
      {nullptr, forced("1", R"(["5.3.0.300",""])"), "1", 86400000u, {"5.3.0.300", ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    cm.ResetForTesting();
    log.Clear();
    if (c.version) SetVersion(c.version); else fs::remove(root.At(tarn::test::kVtid + "Version"));
    WriteInstalled(c.text);
    ASSERT_TRUE(cm.ReadRemoteConfig());
    EXPECT_EQ(Flag("Account"), c.flag);
    EXPECT_EQ(cm.timerPeriodTarnCoreUpdate, c.period);
    const auto& codes = cm.remoteConfig.packageInfoList->front()->invalidVersionCodes;
    EXPECT_EQ(codes ? std::vector<std::string>(codes->begin(), codes->end()) : std::vector<std::string>{}, c.codes);
    EXPECT_EQ(codes != nullptr, !c.codes.empty());
    EXPECT_EQ(log.Contains("ForceUpdate current install version = "), !c.codes.empty());
  }
  EXPECT_TRUE(log.Has(Level::Info, "ForceUpdate current install version = packageName = "
                                   "com.account forceUpdate = 1(ConfigManager::GetPackageInfoList)"));
  EXPECT_TRUE(log.Has(Level::Info, "ForceUpdate invalidVersionCode list = (ConfigManager::GetPackageInfoList)"));
}

TEST_F(RemoteConfig, ServiceInfoIsPassedOnWhenItIsAFile) {
  root.WriteFile(kInstall + "/kits/com.account/ServiceInfo.json", "not read here");
  root.MakeDir(kInstall + "/kits/com.mail/ServiceInfo.json");  // a directory is no file
  WriteInstalled(R"({"packageInfo":[{"packageName":"com.account","subKits":[{"kitName":"Account"}]},
                                     {"packageName":"com.mail","subKits":[{"kitName":"Mail"}]}]})");
  ASSERT_TRUE(cm.Init());
  EXPECT_EQ(registrar.paths, std::vector<std::string>{install + "kits/com.account/ServiceInfo.json"});
  EXPECT_TRUE(log.Has(Level::Info, "com.mail ServiceInfo.json not found(ConfigManager::ReadKitServiceForPackage)"));
  registrar.answer = false;
  EXPECT_FALSE(cm.ReadKitServiceForPackage("com.account"));
  tarn::config::SetServiceInfoRegistrar(nullptr);
  EXPECT_FALSE(cm.ReadKitServiceForPackage("com.account"));
}

// An object where a scalar belongs, in either file, leaves through Init as the JSON library's error.
TEST_F(RemoteConfig, WrongKindsThrowOutOfInit) {
  std::vector<std::pair<std::string, std::string>> cases;  // remote configuration, manifest ("": as set up)
  for (const char* remote : {
           R"([{"packageInfo":[]}])", R"({"packageInfo":{"a":{"packageName":"com.account"}}})",
           R"({"TimerPeriodTarnCoreUpdate":{"ms":1},"packageInfo":[]})", R"({"packageInfo":[{"packageName":["com.account"]}]})",
           R"({"packageInfo":[{"packageName":"com.account","subKits":[{"kitName":{}}]}]})",
           R"({"packageInfo":[{"packageName":"com.account","forceUpdate":"1","invalidVersionCode":[[1]]}]})",
           R"({"packageInfo":["com.account"]})"}) {
    cases.push_back({remote, ""});
  }
  for (const char* manifest : {
           R"(["not an object"])", R"({"version":{"major":1}})", R"({"kits":[{"kitName":["A"]}]})",
           R"({"kits":[{"kitName":"A","apis":[{"apiName":"X","uri":{}}]}]})",
           R"({"kits":[{"kitName":"A","apis":[{"apiName":"X","scopeUri":[]}]}]})",
           R"({"kits":[{"kitName":"A","minApiLevel":[{"level":[]}]}]})", R"({"kits":{"first":{"kitName":"A"}}})",
           R"({"kits":["A"]})"}) {
    cases.push_back({OnePackage("com.account", "Account"), manifest});
  }
  for (const auto& [remote, manifest] : cases) {
    SCOPED_TRACE(remote + " " + manifest);
    cm.ResetForTesting();
    WriteInstalled(remote);
    if (!manifest.empty()) WriteManifest("com.account", manifest);
    EXPECT_THROW(cm.Init(), Json::LogicError);
  }
  EXPECT_EQ(service.stops, 0);
  // A package record is in the list before its fields are read.
  cm.ResetForTesting();
  WriteManifest("com.account", R"({"kits":[{"kitName":"Account"}]})");
  WriteInstalled(R"({"packageInfo":[{"packageName":"com.account","subKits":[{"kitName":"Account"}]},
                                     {"packageName":{"bad":1}}]})");
  EXPECT_THROW(cm.Init(), Json::LogicError);
  EXPECT_EQ(cm.remoteConfig.packageInfoList->size(), 2u);
  EXPECT_EQ(cm.kitConfigMap.count("com.account"), 1u);
}

TEST_F(RemoteConfig, FlagsFollowTheRemoteSubKitsAndARefreshKeepsDroppedKitsAndUris) {
  SetVersion("9");
  // The manifest of com.mail has kit "Mail"; the remote entry names "Ghost" only.
  WriteInstalled(R"({"packageInfo":[
      {"packageName":"com.account","subKits":[{"kitName":"Account"}]},
      {"packageName":"com.mail","forceUpdate":"2","invalidVersionCode":["9"],
       "subKits":[{"kitName":"Ghost"},{"kitName":"Mail"}]}]})");
  ASSERT_TRUE(cm.Init());
  EXPECT_EQ(Flag("Ghost"), "2");
  EXPECT_EQ(Flag("Account"), "0");
  EXPECT_FALSE(log.Contains("Not exist kit"));
  auto oldList = cm.remoteConfig.packageInfoList;

  WriteCached(OnePackage("com.account", "Account"));
  ASSERT_TRUE(cm.Init());
  EXPECT_EQ(cm.remoteConfig.packageInfoList->size(), 1u);
  EXPECT_EQ(oldList->size(), 2u);  // a reader's copy survives
  // The dropped package keeps its kits, and with them its uris, but no flag.
  EXPECT_EQ(cm.kitConfigMap.at("com.mail")->subKits->size(), 1u);
  EXPECT_EQ(cm.kitApiDispathMap.at("Mail.Send")->packageName, "com.mail");
  EXPECT_EQ(Flag("Mail"), "0");
  EXPECT_TRUE(log.Has(Level::Info, "Not exist kit = Mail forceUpdate = 0(ConfigManager::GetForceUpdateFlag)"));
}

// The shipped demo configuration reads with the shipped demo manifests.
TEST_F(RemoteConfig, DemoInstallationReads) {
  const std::string source = tarn::test::SourceDir();
  auto copy = [](const std::string& from, const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  };
  copy(source + "/demo/install/config/remoteConfig.json", InstalledPath());
  for (const char* package : {"com.vantrel.demo", "com.vantrel.demo.lazy", "com.vantrel.sample"}) {
    copy(source + "/kits/" + package + "/kitManifest.json", ManifestPath(package));
  }
  // The scope service's package has a manifest without kits.
  copy(source + "/services/scope/package/kitManifest.json", ManifestPath("com.vantrel.scopeservice"));
  ASSERT_TRUE(cm.Init());
  EXPECT_TRUE(Errors().empty());
  for (const char* uri : {"Demo.Echo", "Demo.Late", "Demo.Broadcast", "DemoLazy.Hello", "Sample.Scopes"}) {
    EXPECT_EQ(cm.kitApiDispathMap.count(uri), 1u) << uri;
  }
  EXPECT_EQ(cm.kitApiDispathMap.at("Demo.Echo")->startup, "true");
  EXPECT_EQ(cm.kitApiDispathMap.at("DemoLazy.Hello")->startup, "false");
  EXPECT_EQ(cm.kitApiDispathMap.at("Demo.Echo")->kitManifVerify, DE::GetFileSha256Hex(ManifestPath("com.vantrel.demo")));
}

}  // namespace

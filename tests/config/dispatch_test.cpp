// The dispatch map and the questions the gates ask of it.
#include <gtest/gtest.h>

#include <tuple>

#include "config/VersionAtLeast.h"
#include "config_fixture.h"

using tarn::log::Level;

namespace {

class Dispatch : public tarn::test::ConfigFixture {
 protected:
  // Adds a sub-kit to a package of the kit tree, as a manifest reading would.
  std::shared_ptr<SubKitConfig> AddKit(const std::string& package, const std::string& kitName,
                                       const std::string& apiLevel, std::initializer_list<const char*> apiNames) {
    auto& kitConfig = cm.kitConfigMap[package];
    if (!kitConfig) {
      kitConfig = std::make_shared<KitConfig>();
      kitConfig->subKits = std::make_shared<SubKitConfigList>();
    }
    auto kit = std::make_shared<SubKitConfig>(SubKitConfig{
        .packageName = package, .version = "1.0", .fileName = "lib" + kitName + ".so", .kitName = kitName,
        .apiLevel = apiLevel, .type = "app", .entry = "Start", .startup = "false", .kitManifVerify = "ABCD",
        .hEvent = nullptr, .minApiLevels = std::make_shared<KitMinApiLevelList>(), .apis = std::make_shared<KitApiInfoList>()});
    for (std::string name : apiNames) {
      kit->apis->push_back(std::make_shared<KitApiInfo>(KitApiInfo{
          kitName + "." + name, name, "perm." + name, "false", "scope." + name}));
    }
    kitConfig->subKits->push_back(kit);
    return kit;
  }

  void StandardTree() {
    AddKit("com.account", "Account", "5", {"Request", "Notify"});
    AddKit("com.account", "NoLevel", "", {"Do"});
    AddKit("com.other", "Other", "2", {"Do"});
    AddKit("com.seven", "Seven", "10", {"Go"});
    AddKit("com.x", "kit", "1", {"call"});
    AddKit("com.x", "Kit", "2", {"Call"});
    ASSERT_TRUE(cm.ConstuctApiDispathMap());
    log.Clear();
  }

  static ResponseStatus Fresh() {
    ResponseStatus status;
    status.resolution = "kept";
    return status;
  }
  static void ExpectStatus(const ResponseStatus& status, const std::string& code, const std::string& text) {
    EXPECT_EQ(status.status_code, code);
    EXPECT_EQ(status.error_code, code);
    EXPECT_EQ(status.error_reason, text);
    EXPECT_EQ(status.resolution, "kept");
  }
};

TEST_F(Dispatch, MapNeedsAPackageCopiesEveryFieldAndTheLastReadWins) {
  EXPECT_FALSE(cm.ConstuctApiDispathMap());
  std::string uri = "Account.Request";
  KitApiDetailInfo info;
  ResponseStatus status = Fresh();
  EXPECT_FALSE(cm.GetAPIInfo(uri, info, status));
  ExpectStatus(status, "907135001", "API is not supported. ");
  EXPECT_TRUE(log.Has(Level::Error, "kitApiDispathMap is empty.(ConfigManager::GetAPIInfo)"));
  EXPECT_EQ(uri, "Account.Request");

  auto account = AddKit("com.account", "Account", "5", {"Request"});
  cm.kitConfigMap["com.empty"] = std::make_shared<KitConfig>();  // a package without kits is fine
  ASSERT_TRUE(cm.ConstuctApiDispathMap());
  ASSERT_EQ(cm.kitApiDispathMap.size(), 1u);
  const KitApiDetailInfo& got = *cm.kitApiDispathMap.at("Account.Request");
  EXPECT_EQ(std::vector<std::string>({got.uri, got.apiName, got.permission, got.verifyCaller, got.packageName,
                                      got.version, got.fileName, got.kitName, got.apiLevel, got.type, got.entry,
                                      got.startup, got.invokeType, got.kitManifVerify, got.scopeUri}),
            std::vector<std::string>({"Account.Request", "Request", "perm.Request", "false", "com.account", "1.0",
                                      "libAccount.so", "Account", "5", "app", "Start", "false", "DLL", "ABCD",
                                      "scope.Request"}));
  EXPECT_EQ(got.minApiLevels, account->minApiLevels);  // the same list, not a copy

  // Of two equal uris the last read wins; packages are read in name order.
  AddKit("com.b", "Account", "6", {"Request"});
  AddKit("com.a", "Account", "7", {"Request"});
  ASSERT_TRUE(cm.ConstuctApiDispathMap());
  EXPECT_EQ(cm.kitApiDispathMap.at("Account.Request")->packageName, "com.b");
}

TEST_F(Dispatch, GetAPIInfoIgnoresCaseAndLowerCasesTheCallersUri) {
  StandardTree();
  std::string uri = "ACCOUNT.REQUEST";
  KitApiDetailInfo info;
  ResponseStatus status = Fresh();
  EXPECT_TRUE(cm.GetAPIInfo(uri, info, status));
  EXPECT_EQ(uri, "account.request");
  EXPECT_EQ(info.uri, "Account.Request");
  EXPECT_EQ(status.status_code, "0");
  EXPECT_TRUE(log.Has(Level::Debug, "uri equal uriTemp.(ConfigManager::GetAPIInfo)"));
  EXPECT_TRUE(log.Has(Level::Debug, "kitAPiInfo message kitName.Account(ConfigManager::GetAPIInfo)"));
  EXPECT_TRUE(log.Has(Level::Debug, "kitApiDispathMap uriTemp.account.notify(ConfigManager::GetAPIInfo)"));

  // Keys differing in case are one uri: the first in byte order wins ('K' before 'k').
  uri = "KIT.CALL";
  EXPECT_TRUE(cm.GetAPIInfo(uri, info, status));
  EXPECT_EQ(info.uri, "Kit.Call");

  // An unknown uri is a true result with nothing filled, after every key was looked at.
  log.Clear();
  uri = "Account.Nothing";
  KitApiDetailInfo none;
  EXPECT_TRUE(cm.GetAPIInfo(uri, none, status));
  EXPECT_EQ(none.apiName, "");
  EXPECT_EQ(status.status_code, "0");
  EXPECT_EQ(uri, "account.nothing");
  EXPECT_EQ(log.CountContaining("kitApiDispathMap uriTemp."), cm.kitApiDispathMap.size());
}

TEST_F(Dispatch, CheckApiLevel) {
  StandardTree();
  const char* kBadData = "data format is error.";
  const char* kNotSupported = "API is not supported. ";
  const char* kLow = "APILevel is low, need update. ";
  struct Case {
    const char* srv;
    const char* api;
    const char* level;
    const char* sdk;
    const char* code;  // "0": passes
    const char* reason;
    const char* apiAfter;
  };
  std::vector<Case> cases;
  // The level must be empty or a non-negative integer, before anything else;
  // the framework then passes without a look-up (its uri isn't in the map).
  for (const char* bad : {"abc", "-1", "1.5", " 1", "-", "1 ", "+1", "0x1"}) {
    cases.push_back({"FRAMEWORK", "Framework.Any", bad, "5.3.0.300", "907135000", kBadData, "Framework.Any"});
  }
  for (const char* good : {"", "99", "-0"}) {
    cases.push_back({"FRAMEWORK", "Framework.Any", good, "5.3.0.300", "0", "", "Framework.Any"});
  }
  cases.insert(cases.end(), {
      // At or below the kit's level passes; the uri is lower-cased on the way.
      {"Account", "ACCOUNT.Request", "", "5.3.0.300", "0", "", "account.request"},
      {"Account", "ACCOUNT.Request", "5", "5.3.0.300", "0", "", "account.request"},
      {"Seven", "Seven.Go", "007", "5.3.0.300", "0", "", "seven.go"},
      // Above it needs an update; the sdk version decides which code, before the look-up.
      {"Account", "Account.Request", "6", "5.3.0.300", "907135013", kLow, "Account.Request"},
      {"Account", "Account.Request", "6", "5.3.0.299", "907135005", kLow, "Account.Request"},
      {"Account", "Account.Request", "6", "", "907135005", kLow, "Account.Request"},
      // An unknown kit, a kit without a level (names compare with their case), an unknown api.
      {"Nobody", "NoLevel.Do", "1", "5.3.0.300", "907135001", kNotSupported, "NoLevel.Do"},
      {"NoLevel", "NoLevel.Do", "1", "5.3.0.300", "907135001", kNotSupported, "NoLevel.Do"},
      {"account", "NoLevel.Do", "1", "5.3.0.300", "907135001", kNotSupported, "NoLevel.Do"},
      {"Account", "Account.Nothing", "1", "5.3.0.300", "907135001", kNotSupported, "account.nothing"},
      // Served by kit Account (level 5) by name, but the uri's own kit Other is at level 2.
      {"Account", "Other.Do", "3", "5.2.0.300", "907135005", kLow, "other.do"},
      {"Account", "Other.Do", "2", "5.3.0.300", "0", "", "other.do"},
  });
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.srv) + " " + c.api + " '" + c.level + "' " + c.sdk);
    RequestHeader header;
    header.srv_name = c.srv;
    header.api_name = c.api;
    header.apiLevel = c.level;
    header.sdk_version = c.sdk;
    ResponseStatus status = Fresh();
    const bool passes = std::string(c.code) == "0";
    EXPECT_EQ(cm.CheckApiLevel(header, status), passes);
    if (passes) {
      EXPECT_EQ(status.status_code, "0");
    } else {
      ExpectStatus(status, c.code, c.reason);
    }
    EXPECT_EQ(header.api_name, c.apiAfter);
  }
  EXPECT_EQ(log.Count(Level::Error, "api level is invalid!(ConfigManager::CheckApiLevel)"), 8u);
  EXPECT_EQ(log.Count(Level::Error, "the kit is not exist. uri = NoLevel.Do(ConfigManager::CheckApiLevel)"), 3u);
  EXPECT_EQ(log.Count(Level::Error, "APILevel is low, need update.. uri = Account.Request(ConfigManager::CheckApiLevel)"), 3u);
  EXPECT_TRUE(log.Has(Level::Error, "uri is not supported. uri = account.nothing(ConfigManager::CheckApiLevel)"));
  EXPECT_TRUE(log.Has(Level::Error, "APILevel is low, need update. uri = other.do(ConfigManager::CheckApiLevel)"));
}

TEST(VersionAtLeastTest, ComparesFieldByField) {
  // No digit test: 'a' counts as 49.
  for (auto [a, b, atLeast] : std::initializer_list<std::tuple<const char*, const char*, bool>>{
           {"5.3", "5.3.0.0", true}, {"5.10", "5.9.9", true}, {"5.3.0.1", "5.10", false}, {"", "5.3.0.300", false},
           {"", "", true}, {"5.3", "5.3.0.1", false}, {"5.3.0.1", "5.3", true}, {"5.a", "5.48", true},
           {"5.a", "5.50", false}}) {
    EXPECT_EQ(VersionAtLeast(a, b), atLeast) << a << " vs " << b;
  }
}

}  // namespace

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
                                       const std::string& apiLevel,
                                       std::initializer_list<const char*> apiNames) {
    auto& kitConfig = cm.kitConfigMap[package];
    if (!kitConfig) {
      kitConfig = std::make_shared<KitConfig>();
      kitConfig->subKits = std::make_shared<SubKitConfigList>();
    }
    auto subKit = std::make_shared<SubKitConfig>();
    subKit->packageName = package;
    subKit->version = "1.0";
    subKit->fileName = "lib" + kitName + ".so";
    subKit->kitName = kitName;
    subKit->apiLevel = apiLevel;
    subKit->type = "app";
    subKit->entry = "Start";
    subKit->startup = "false";
    subKit->kitManifVerify = "ABCD";
    subKit->minApiLevels = std::make_shared<KitMinApiLevelList>();
    subKit->apis = std::make_shared<KitApiInfoList>();
    for (const char* name : apiNames) {
      auto api = std::make_shared<KitApiInfo>();
      api->apiName = name;
      api->uri = kitName + "." + name;
      api->permission = "perm." + std::string(name);
      api->scopeUri = "scope." + std::string(name);
      api->verifyCaller = "false";
      subKit->apis->push_back(api);
    }
    kitConfig->subKits->push_back(subKit);
    return subKit;
  }

  void StandardTree() {
    AddKit("com.account", "Account", "5", {"Request", "Notify"});
    AddKit("com.account", "NoLevel", "", {"Do"});
    AddKit("com.other", "Other", "2", {"Do"});
    AddKit("com.seven", "Seven", "10", {"Go"});
    ASSERT_TRUE(cm.ConstuctApiDispathMap());
    log.Clear();
  }

  static RequestHeader Header(const std::string& srv, const std::string& api, const std::string& level,
                              const std::string& sdk = "5.3.0.300") {
    RequestHeader header;
    header.srv_name = srv;
    header.api_name = api;
    header.apiLevel = level;
    header.sdk_version = sdk;
    return header;
  }

  static void ExpectStatus(const ResponseStatus& status, const std::string& code,
                           const std::string& text) {
    EXPECT_EQ(status.status_code, code);
    EXPECT_EQ(status.error_code, code);
    EXPECT_EQ(status.error_reason, text);
    EXPECT_EQ(status.resolution, "kept");
  }

  static ResponseStatus Fresh() {
    ResponseStatus status;
    status.resolution = "kept";
    return status;
  }
};

TEST_F(Dispatch, MapNeedsAPackageAndCopiesEveryField) {
  EXPECT_FALSE(cm.ConstuctApiDispathMap());
  auto account = AddKit("com.account", "Account", "5", {"Request"});
  cm.kitConfigMap["com.empty"] = std::make_shared<KitConfig>();  // a package without kits is fine
  ASSERT_TRUE(cm.ConstuctApiDispathMap());
  ASSERT_EQ(cm.kitApiDispathMap.size(), 1u);
  const KitApiDetailInfo& info = *cm.kitApiDispathMap.at("Account.Request");
  EXPECT_EQ(info.uri, "Account.Request");
  EXPECT_EQ(info.apiName, "Request");
  EXPECT_EQ(info.permission, "perm.Request");
  EXPECT_EQ(info.verifyCaller, "false");
  EXPECT_EQ(info.packageName, "com.account");
  EXPECT_EQ(info.fileName, "libAccount.so");
  EXPECT_EQ(info.apiLevel, "5");
  EXPECT_EQ(info.entry, "Start");
  EXPECT_EQ(info.startup, "false");
  EXPECT_EQ(info.invokeType, "DLL");
  EXPECT_EQ(info.kitManifVerify, "ABCD");
  EXPECT_EQ(info.minApiLevels, account->minApiLevels);  // the same list, not a copy
  EXPECT_EQ(info.scopeUri, "scope.Request");
}

TEST_F(Dispatch, SameUriLastReadWinsAndOldUrisStay) {
  AddKit("com.a", "Shared", "1", {"Call"});
  AddKit("com.b", "Shared", "2", {"Call"});
  ASSERT_TRUE(cm.ConstuctApiDispathMap());
  EXPECT_EQ(cm.kitApiDispathMap.at("Shared.Call")->packageName, "com.b");

  cm.kitConfigMap.erase("com.b");
  cm.kitConfigMap.at("com.a")->subKits->clear();
  AddKit("com.a", "Fresh", "1", {"New"});
  ASSERT_TRUE(cm.ConstuctApiDispathMap());
  EXPECT_EQ(cm.kitApiDispathMap.at("Shared.Call")->packageName, "com.b");  // never cleared
  EXPECT_EQ(cm.kitApiDispathMap.count("Fresh.New"), 1u);
}

TEST_F(Dispatch, GetAPIInfoIgnoresCaseAndLowerCasesTheCallersUri) {
  StandardTree();
  std::string uri = "ACCOUNT.REQUEST";
  KitApiDetailInfo info;
  ResponseStatus status = Fresh();
  EXPECT_TRUE(cm.GetAPIInfo(uri, info, status));
  EXPECT_EQ(uri, "account.request");
  EXPECT_EQ(info.uri, "Account.Request");
  EXPECT_EQ(info.kitName, "Account");
  EXPECT_EQ(status.status_code, "0");
  EXPECT_TRUE(log.Has(Level::Debug, "uri equal uriTemp.(ConfigManager::GetAPIInfo)"));
  EXPECT_TRUE(log.Has(Level::Debug, "kitAPiInfo message kitName.Account(ConfigManager::GetAPIInfo)"));
  EXPECT_TRUE(log.Has(Level::Debug, "kitApiDispathMap uriTemp.account.notify(ConfigManager::GetAPIInfo)"));

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

TEST_F(Dispatch, KeysDifferingInCaseAreOneUriAndTheFirstInByteOrderWins) {
  AddKit("com.x", "kit", "1", {"call"});
  AddKit("com.x", "Kit", "2", {"Call"});
  ASSERT_TRUE(cm.ConstuctApiDispathMap());
  std::string uri = "KIT.CALL";
  KitApiDetailInfo info;
  ResponseStatus status;
  cm.GetAPIInfo(uri, info, status);
  EXPECT_EQ(info.uri, "Kit.Call");  // 'K' sorts before 'k'
}

TEST_F(Dispatch, EmptyMapRefusesTheUri) {
  std::string uri = "Account.Request";
  KitApiDetailInfo info;
  ResponseStatus status = Fresh();
  EXPECT_FALSE(cm.GetAPIInfo(uri, info, status));
  ExpectStatus(status, "907135001", "API is not supported. ");
  EXPECT_TRUE(log.Has(Level::Error, "kitApiDispathMap is empty.(ConfigManager::GetAPIInfo)"));
  EXPECT_EQ(uri, "Account.Request");
}

TEST_F(Dispatch, LevelTextMustBeANonNegativeIntegerBeforeAnythingElse) {
  for (const char* bad : {"abc", "-1", "1.5", " 1", "-", "1 ", "+1", "0x1"}) {
    RequestHeader header = Header("FRAMEWORK", "Framework.Any", bad);
    ResponseStatus status = Fresh();
    EXPECT_FALSE(cm.CheckApiLevel(header, status)) << bad;
    ExpectStatus(status, "907135000", "data format is error.");
  }
  EXPECT_EQ(log.Count(Level::Error, "api level is invalid!(ConfigManager::CheckApiLevel)"), 8u);
  // The framework passes without look-up, even with an empty map.
  log.Clear();
  for (const char* level : {"", "0", "99", "007", "-0"}) {
    RequestHeader header = Header("FRAMEWORK", "Framework.Any", level);
    ResponseStatus status = Fresh();
    EXPECT_TRUE(cm.CheckApiLevel(header, status)) << level;
    EXPECT_EQ(status.status_code, "0");
    EXPECT_EQ(header.api_name, "Framework.Any");
  }
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(Dispatch, CheckApiLevelAgainstTheKitsLevel) {
  StandardTree();
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
  } cases[] = {
      // At or below the kit's level passes; the uri is lower-cased on the way.
      {"Account", "ACCOUNT.Request", "", "5.3.0.300", "0", "", "account.request"},
      {"Account", "ACCOUNT.Request", "0", "5.3.0.300", "0", "", "account.request"},
      {"Account", "ACCOUNT.Request", "5", "5.3.0.300", "0", "", "account.request"},
      {"Seven", "Seven.Go", "007", "5.3.0.300", "0", "", "seven.go"},
      // Above it needs an update; the sdk version decides which code, before the look-up.
      {"Account", "Account.Request", "6", "5.3.0.300", "907135013", kLow, "Account.Request"},
      {"Account", "Account.Request", "6", "5.3.0.301", "907135013", kLow, "Account.Request"},
      {"Account", "Account.Request", "6", "6", "907135013", kLow, "Account.Request"},
      {"Account", "Account.Request", "6", "5.3.0.299", "907135005", kLow, "Account.Request"},
      {"Account", "Account.Request", "6", "5.2.9", "907135005", kLow, "Account.Request"},
      {"Account", "Account.Request", "6", "", "907135005", kLow, "Account.Request"},
      // An unknown kit, a kit without a level (names compare with their case), an unknown api.
      {"Nobody", "NoLevel.Do", "1", "5.3.0.300", "907135001", kNotSupported, "NoLevel.Do"},
      {"NoLevel", "NoLevel.Do", "1", "5.3.0.300", "907135001", kNotSupported, "NoLevel.Do"},
      {"account", "NoLevel.Do", "1", "5.3.0.300", "907135001", kNotSupported, "NoLevel.Do"},
      {"Account", "Account.Nothing", "1", "5.3.0.300", "907135001", kNotSupported, "account.nothing"},
      // Served by kit Account (level 5) by name, but the uri's own kit Other is at level 2.
      {"Account", "Other.Do", "3", "5.2.0.300", "907135005", kLow, "other.do"},
      {"Account", "Other.Do", "2", "5.3.0.300", "0", "", "other.do"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.srv) + " " + c.api + " " + c.level + " " + c.sdk);
    RequestHeader header = Header(c.srv, c.api, c.level, c.sdk);
    ResponseStatus status = Fresh();
    EXPECT_EQ(cm.CheckApiLevel(header, status), std::string(c.code) == "0");
    if (std::string(c.code) == "0") {
      EXPECT_EQ(status.status_code, "0");
    } else {
      ExpectStatus(status, c.code, c.reason);
    }
    EXPECT_EQ(header.api_name, c.apiAfter);
  }
  EXPECT_EQ(log.Count(Level::Error, "the kit is not exist. uri = NoLevel.Do(ConfigManager::CheckApiLevel)"), 3u);
  EXPECT_EQ(log.Count(Level::Error, "APILevel is low, need update.. uri = Account.Request(ConfigManager::CheckApiLevel)"), 6u);
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

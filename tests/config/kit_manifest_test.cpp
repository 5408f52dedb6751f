// Reading kitManifest.json into the kit tree: defaults, presence rules,
// filtering by the remote subKits, digests and failures.
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config_fixture.h"
#include "platform/commonutil/de.h"

using tarn::log::Level;

namespace {

std::shared_ptr<SubKitConfigList> Remote(std::initializer_list<const char*> names) {
  auto list = std::make_shared<SubKitConfigList>();
  for (const char* name : names) {
    list->push_back(std::make_shared<SubKitConfig>());
    list->back()->kitName = name;
  }
  return list;
}

template <typename T>
std::vector<std::shared_ptr<T>> All(const std::shared_ptr<std::list<std::shared_ptr<T>>>& list) {
  return list ? std::vector<std::shared_ptr<T>>(list->begin(), list->end()) : std::vector<std::shared_ptr<T>>{};
}

class KitManifest : public tarn::test::ConfigFixture {
 protected:
  std::vector<std::shared_ptr<SubKitConfig>> Read(const std::string& manifest,
                                                  std::shared_ptr<SubKitConfigList> remote) {
    WriteManifest("com.pkg", manifest);
    EXPECT_TRUE(cm.ReadKitConfigForPackage("com.pkg", remote));
    return All(cm.kitConfigMap.at("com.pkg")->subKits);
  }
};

TEST_F(KitManifest, FieldsDefaultsAndUriRules) {
  auto subKits = Read(R"({
    // comments are allowed
    "version": "2.1.0.7", "fileName": "libaccount.so", "unknownKey": {"ignored": true},
    "kits": [ {
      "kitName": "Account", "apiLevel": 5, "type": "", "startup": false,
      "minApiLevel": [ {"kitName": "Core", "level": 2}, {"kitName": "Net", "level": "3"} ],
      "apis": [
        { "apiName": "Request", "permission": "p.request", "scopeUri": "scope/a" },
        { "apiName": "Named", "uri": null, "scopeUri": null, "verifyCaller": "false" },
        { "apiName": "Blank", "uri": "", "verifyCaller": "" },
        { "apiName": "Aliased", "uri": "Other" },
        { }
      ] } ] })", Remote({"Account"}));
  ASSERT_EQ(subKits.size(), 1u);
  const auto& kit = *subKits[0];
  // A number reads as its decimal text, a boolean as its word; empty text and
  // a missing key both take the default (type "app", entry "Init").
  EXPECT_EQ(std::vector<std::string>({kit.packageName, kit.version, kit.fileName, kit.kitName, kit.apiLevel,
                                      kit.type, kit.entry, kit.startup}),
            std::vector<std::string>({"com.pkg", "2.1.0.7", "libaccount.so", "Account", "5", "app", "Init", "false"}));
  EXPECT_EQ(kit.kitManifVerify, DE::GetFileSha256Hex(ManifestPath("com.pkg")));
  std::vector<std::string> levels;
  for (const auto& level : All(kit.minApiLevels)) levels.push_back(level->kitName + "=" + level->level);
  EXPECT_EQ(levels, std::vector<std::string>({"Core=2", "Net=3"}));

  // uri, apiName, verifyCaller and scopeUri of each api.
  std::vector<std::vector<std::string>> apis;
  for (const auto& api : All(kit.apis)) apis.push_back({api->uri, api->apiName, api->verifyCaller, api->scopeUri});
  EXPECT_EQ(apis, (std::vector<std::vector<std::string>>{
                      {"Account.Request", "Request", "true", "scope/a"},
                      {"Account.Named", "Named", "false", ""},  // null counts as absent
                      {"Account.", "Blank", "true", ""},        // an empty string is a given value
                      {"Account.Other", "Aliased", "true", ""},
                      {"Account.", "", "true", ""}}));
  EXPECT_EQ(kit.apis->front()->permission, "p.request");
  EXPECT_TRUE(Errors().empty());
}

TEST_F(KitManifest, OnlyKitsTheRemoteConfigurationNamesSurvive) {
  const char* manifest = R"({"kits":[{"kitName":"A","apiLevel":"1"},{"kitName":"B"},
                                     {"kitName":"A","apiLevel":"2"},{"kitName":"c"}]})";
  auto subKits = Read(manifest, Remote({"A", "C", "Missing"}));
  ASSERT_EQ(subKits.size(), 2u);  // both A's kept; names compare with their case
  EXPECT_EQ(subKits[0]->apiLevel, "1");
  EXPECT_EQ(subKits[1]->apiLevel, "2");

  EXPECT_TRUE(Read(manifest, Remote({})).empty());
  EXPECT_TRUE(Read(manifest, nullptr).empty());
  EXPECT_TRUE(Read(R"({"version":"1"})", Remote({"A"})).empty());  // no kits: a success
  EXPECT_TRUE(Errors().empty());
}

TEST_F(KitManifest, UnreadableManifestLeavesAnEmptyEntryInPlaceOfTheOldOne) {
  Read(R"({"kits":[{"kitName":"A"}]})", Remote({"A"}));
  auto earlier = cm.kitConfigMap.at("com.pkg")->subKits;
  ::unlink(ManifestPath("com.pkg").c_str());
  // Missing, then a directory where the file belongs: both fail to open.
  for (const char* error : {"2", "21"}) {
    log.Clear();
    EXPECT_TRUE(cm.ReadKitConfigForPackage("com.pkg", Remote({"A"})));
    EXPECT_TRUE(cm.kitConfigMap.at("com.pkg")->subKits->empty());
    EXPECT_EQ(Errors(), (std::vector<std::string>{
                            "Get kitManifest.json File Sha256 code failed.(ConfigManager::ReadKitConfigForFile)",
                            "Open kit config failed or packageName failed,.configFilePath = " + ManifestPath("com.pkg") +
                                "error: " + error + "(ConfigManager::ReadKitConfigForFile)"}));
    ::mkdir(ManifestPath("com.pkg").c_str(), 0755);
  }
  EXPECT_EQ(earlier->size(), 1u);  // an earlier reader keeps its records
  ::rmdir(ManifestPath("com.pkg").c_str());

  log.Clear();
  EXPECT_TRUE(Read(R"({"kits":[{"kitName":"A"})", Remote({"A"})).empty());
  EXPECT_EQ(Errors(), std::vector<std::string>{"init config,data parse error. configFilePath = " +
                                               ManifestPath("com.pkg") + "(ConfigManager::ReadKitConfigForFile)"});
}

TEST_F(KitManifest, ManifestThatCantBeHashedIsStillRead) {
  // A pipe that holds the text opens and reads, but has no file digest.
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const std::string text = R"({"version":"1","kits":[{"kitName":"A","apis":[{"apiName":"Go"}]}]})";
  ASSERT_EQ(::write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(fds[1]);
  root.MakeDir(kInstall + "/kits/com.pkg");
  ASSERT_EQ(::symlink(("/proc/self/fd/" + std::to_string(fds[0])).c_str(), ManifestPath("com.pkg").c_str()), 0);
  cm.ReadKitConfigForPackage("com.pkg", Remote({"A"}));
  ::close(fds[0]);

  auto subKits = All(cm.kitConfigMap.at("com.pkg")->subKits);
  ASSERT_EQ(subKits.size(), 1u);
  EXPECT_EQ(subKits[0]->kitManifVerify, "");
  EXPECT_EQ(subKits[0]->version, "1");
  EXPECT_EQ(Errors(), std::vector<std::string>{
                          "Get kitManifest.json File Sha256 code failed.(ConfigManager::ReadKitConfigForFile)"});
}

}  // namespace

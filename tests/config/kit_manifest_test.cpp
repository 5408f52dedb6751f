// Reading kitManifest.json into the kit tree: defaults, presence rules,
// filtering by the remote subKits, digests and failures.
#include <gtest/gtest.h>
#include <json/json.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "config_fixture.h"
#include "platform/commonutil/de.h"

using tarn::log::Level;

namespace {

std::shared_ptr<SubKitConfigList> Remote(std::initializer_list<const char*> names) {
  auto list = std::make_shared<SubKitConfigList>();
  for (const char* name : names) {
    auto subKit = std::make_shared<SubKitConfig>();
    subKit->kitName = name;
    list->push_back(subKit);
  }
  return list;
}

template <typename T>
std::shared_ptr<T> At(const std::shared_ptr<std::list<std::shared_ptr<T>>>& list, std::size_t i) {
  if (!list || i >= list->size()) return nullptr;
  return *std::next(list->begin(), static_cast<long>(i));
}

class KitManifest : public tarn::test::ConfigFixture {
 protected:
  std::shared_ptr<SubKitConfigList> Read(const std::string& manifest,
                                         std::shared_ptr<SubKitConfigList> remote) {
    WriteManifest("com.pkg", manifest);
    EXPECT_TRUE(cm.ReadKitConfigForPackage("com.pkg", remote));
    return cm.kitConfigMap.at("com.pkg")->subKits;
  }
};

constexpr const char* kAccount = R"({
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
    ] } ] })";

TEST_F(KitManifest, FieldsDefaultsAndUriRules) {
  auto subKits = Read(kAccount, Remote({"Account"}));
  ASSERT_EQ(subKits->size(), 1u);
  auto kit = At(subKits, 0);
  EXPECT_EQ(kit->packageName, "com.pkg");
  EXPECT_EQ(kit->version, "2.1.0.7");
  EXPECT_EQ(kit->fileName, "libaccount.so");
  EXPECT_EQ(kit->kitName, "Account");
  EXPECT_EQ(kit->apiLevel, "5");       // a number reads as its decimal text
  EXPECT_EQ(kit->type, "app");         // empty text takes the default
  EXPECT_EQ(kit->entry, "Init");       // so does a missing key
  EXPECT_EQ(kit->startup, "false");    // a boolean reads as its word
  EXPECT_EQ(kit->hEvent, nullptr);
  EXPECT_EQ(kit->kitManifVerify, DE::GetFileSha256Hex(ManifestPath("com.pkg")));
  EXPECT_EQ(kit->kitManifVerify.size(), 64u);

  ASSERT_EQ(kit->minApiLevels->size(), 2u);
  EXPECT_EQ(At(kit->minApiLevels, 0)->kitName, "Core");
  EXPECT_EQ(At(kit->minApiLevels, 0)->level, "2");
  EXPECT_EQ(At(kit->minApiLevels, 1)->level, "3");

  ASSERT_EQ(kit->apis->size(), 5u);
  auto request = At(kit->apis, 0);
  EXPECT_EQ(request->uri, "Account.Request");
  EXPECT_EQ(request->apiName, "Request");
  EXPECT_EQ(request->permission, "p.request");
  EXPECT_EQ(request->verifyCaller, "true");
  EXPECT_EQ(request->scopeUri, "scope/a");
  auto named = At(kit->apis, 1);
  EXPECT_EQ(named->uri, "Account.Named");  // null counts as absent
  EXPECT_EQ(named->scopeUri, "");
  EXPECT_EQ(named->verifyCaller, "false");
  auto blank = At(kit->apis, 2);
  EXPECT_EQ(blank->uri, "Account.");       // an empty string is a given value
  EXPECT_EQ(blank->apiName, "Blank");
  EXPECT_EQ(blank->verifyCaller, "true");
  EXPECT_EQ(At(kit->apis, 3)->uri, "Account.Other");
  EXPECT_EQ(At(kit->apis, 3)->apiName, "Aliased");
  EXPECT_EQ(At(kit->apis, 4)->uri, "Account.");

  EXPECT_TRUE(ErrorLines().empty());
}

TEST_F(KitManifest, OnlyKitsTheRemoteConfigurationNamesSurvive) {
  const char* manifest = R"({"kits":[{"kitName":"A","apiLevel":"1"},{"kitName":"B"},
                                     {"kitName":"A","apiLevel":"2"},{"kitName":"c"}]})";
  auto subKits = Read(manifest, Remote({"A", "C", "Missing"}));
  ASSERT_EQ(subKits->size(), 2u);  // both A's kept; names compare with their case
  EXPECT_EQ(At(subKits, 0)->apiLevel, "1");
  EXPECT_EQ(At(subKits, 1)->apiLevel, "2");

  EXPECT_TRUE(Read(manifest, Remote({}))->empty());
  EXPECT_TRUE(Read(manifest, nullptr)->empty());
  EXPECT_TRUE(Read(R"({"version":"1"})", Remote({"A"}))->empty());  // no kits: a success
  EXPECT_TRUE(ErrorLines().empty());
}

TEST_F(KitManifest, UnreadableManifestLeavesAnEmptyEntryInPlaceOfTheOldOne) {
  auto good = Read(R"({"kits":[{"kitName":"A"}]})", Remote({"A"}));
  ASSERT_EQ(good->size(), 1u);
  ::unlink(ManifestPath("com.pkg").c_str());
  log.Clear();
  EXPECT_TRUE(cm.ReadKitConfigForPackage("com.pkg", Remote({"A"})));
  EXPECT_TRUE(cm.kitConfigMap.at("com.pkg")->subKits->empty());
  EXPECT_EQ(good->size(), 1u);  // an earlier reader keeps its records
  EXPECT_TRUE(log.Has(Level::Error,
                      "Get kitManifest.json File Sha256 code failed.(ConfigManager::ReadKitConfigForFile)"));
  EXPECT_TRUE(log.Has(Level::Error, "Open kit config failed or packageName failed,.configFilePath = " +
                                        ManifestPath("com.pkg") +
                                        "error: 2(ConfigManager::ReadKitConfigForFile)"));

  log.Clear();
  auto broken = Read(R"({"kits":[{"kitName":"A"})", Remote({"A"}));
  EXPECT_TRUE(broken->empty());
  EXPECT_TRUE(log.Has(Level::Error, "init config,data parse error. configFilePath = " +
                                        ManifestPath("com.pkg") + "(ConfigManager::ReadKitConfigForFile)"));
  EXPECT_FALSE(log.Contains("Sha256 code failed"));
}

TEST_F(KitManifest, ManifestThatCantBeHashedIsStillRead) {
  // A pipe opens and reads but has no file digest.
  const std::string path = ManifestPath("com.pkg");
  root.MakeDir(kInstall + "/kits/com.pkg");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  std::thread writer([&path] {
    int fd = ::open(path.c_str(), O_WRONLY);
    if (fd < 0) return;
    const std::string text = R"({"version":"1","kits":[{"kitName":"A","apis":[{"apiName":"Go"}]}]})";
    [[maybe_unused]] ssize_t n = ::write(fd, text.data(), text.size());
    ::close(fd);
  });
  cm.ReadKitConfigForPackage("com.pkg", Remote({"A"}));
  // Should the pipe not have been opened, let the writer go.
  int unblock = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
  writer.join();
  if (unblock >= 0) ::close(unblock);

  auto subKits = cm.kitConfigMap.at("com.pkg")->subKits;
  ASSERT_EQ(subKits->size(), 1u);
  EXPECT_EQ(At(subKits, 0)->kitManifVerify, "");
  EXPECT_EQ(At(subKits, 0)->version, "1");
  EXPECT_TRUE(log.Has(Level::Error,
                      "Get kitManifest.json File Sha256 code failed.(ConfigManager::ReadKitConfigForFile)"));
  EXPECT_EQ(ErrorLines().size(), 1u);
}

TEST_F(KitManifest, WrongKindsThrowTheLibraryErrorOutOfInit) {
  const char* wrong[] = {
      R"(["not an object"])",
      R"("text")",
      R"({"version":{"major":1}})",
      R"({"kits":[{"kitName":["A"]}]})",
      R"({"kits":[{"kitName":"A","apiLevel":{}}]})",
      R"({"kits":[{"kitName":"A","apis":[{"apiName":"X","uri":{}}]}]})",
      R"({"kits":[{"kitName":"A","apis":[{"apiName":"X","scopeUri":[]}]}]})",
      R"({"kits":[{"kitName":"A","minApiLevel":[{"level":[]}]}]})",
      R"({"kits":{"first":{"kitName":"A"}}})",
      R"({"kits":["A"]})",
  };
  WriteInstalled(OnePackage("com.pkg", "A"));
  for (const char* text : wrong) {
    cm.ResetForTesting();
    WriteManifest("com.pkg", text);
    EXPECT_THROW(cm.Init(), Json::LogicError) << text;
  }
}

}  // namespace

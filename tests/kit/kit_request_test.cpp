// Requests from a client over the real socket, through the pipeline's gates,
// the kit manager's decision tree and the kit libraries, back to the client.
#include <fstream>
#include <vector>

#include "analytics/EvManager.h"
#include "kit_fixture.h"

namespace {

using tarn::log::Level;
using tarn::test::Eventually;
using tarn::test::Request;

using KitRequest = tarn::test::KitRequestFixture;

TEST_F(KitRequest, AnswersInsideTheCallAndLateOnesReachTheClient) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  EvManager& reporter = EvManager::GetInstance();
  reporter.ResetForTesting();
  reporter.enabled = true;
  Json::Value answer;
  ASSERT_EQ("0", Status(11, Request("Main.Echo", R"({"q":"v"})"), &answer));
  EXPECT_EQ("v", answer["body"]["echo"]["q"].asString());
  EXPECT_EQ("Main.Echo", answer["header"]["api_name"].asString());
  // The answer leaves before the request's thread has finished; the reporter has both records.
  ASSERT_TRUE(Eventually([&] { return Lines("RequestInvoke.excute end.") == 1 && Callbacks() == 0; }));
  EXPECT_EQ(2u, reporter.PendingApiCallCount());
  reporter.ResetForTesting();
  // The gates ran in their order, then the call.
  const std::vector<std::string> order = {
      "KitManagerApi.Invoke start. msgIdentify = 11", "KitManagerApi.CheckApiLevel begin.",
      "KitManagerApi.CheckApiLevel end.", "KitManagerApi.CheckApiPermission begin.",
      "no need to check permission.", "KitManagerApi.CheckApiPermission end.",
      "kit method invoke success.packageName = com.test.main method = Echo msgIdentify = 11(LoadManger::Invoke)",
      "KitManagerApi.Invoke end."};
  std::size_t next = 0;
  for (const auto& record : logs_.Records()) {
    if (next < order.size() && record.text.find(order[next]) != std::string::npos) ++next;
  }
  EXPECT_EQ(order.size(), next) << "missing: " << (next < order.size() ? order[next] : "");

  // From the kit's own thread after the call returned; a text with "header" goes out as written.
  ASSERT_EQ("0", Status(12, Request("Main.Late"), &answer));
  EXPECT_EQ("12", answer["header"]["syncMessageId"].asString());
  EXPECT_EQ("once", answer["body"]["late"].asString());
  EXPECT_TRUE(Eventually([&] { return Callbacks() == 0; }));
}

TEST_F(KitRequest, KitThatIsNotStartedAtStartUpLoadsOnTheFirstRequest) {
  Setup({Main(), Lazy()});
  ASSERT_TRUE(manager.Init());
  EXPECT_FALSE(loader.HasKit("com.test.lazy"));
  for (int32_t id : {13, 14}) {
    Json::Value answer;
    ASSERT_EQ("0", Status(id, Request("Lazy.Echo"), &answer));
    EXPECT_EQ("Lazy", answer["body"]["kit"].asString());
    EXPECT_EQ(1, answer["body"]["initCount"].asInt());
  }
  EXPECT_TRUE(logs_.Has(Level::Info, "load kit. msgIdentify = 13 packageName = com.test.lazy(KitManagerApi::InvokeToKit)"));
  EXPECT_EQ(1u, Lines("load kit. msgIdentify"));
}

TEST_F(KitRequest, KitWhoseManifestChangedIsRefusedAndTriedAgainByEachRequest) {
  Setup({Main()});
  const std::string manifest = KitDir("com.test.main") + "kitManifest.json";
  const std::string original = tarn::test::ReadText(manifest);
  AppendTo(manifest, "\n");
  ASSERT_TRUE(manager.Init());  // the start goes on
  EXPECT_EQ("907135002", Status(15, Request("Main.Echo")));
  EXPECT_TRUE(logs_.Has(Level::Error, "Load kit failed com.test.main msgIdentify = 15(KitManagerApi::InvokeToKit)"));
  EXPECT_EQ("907135002", Status(16, Request("Main.Echo")));
  // Once at start, once per request: nothing of a failed test is remembered.
  EXPECT_EQ(3u, Lines("dllPluginVerify is not equal to kitManifVerify!"));
  EXPECT_EQ(0u, Lines("invoke kit init begin."));  // refused before the entry function

  // Put right and the configuration read again, as an update does: the kit is served.
  std::ofstream(manifest, std::ios::binary | std::ios::trunc) << original;
  EXPECT_TRUE(manager.InitKitsForUpdate());
  EXPECT_TRUE(loader.HasKit("com.test.main"));
  EXPECT_EQ("0", Status(17, Request("Main.Echo")));
}

// A library without its entry function is dead: it answers "not supported" and
// is never loaded again. A sub-kit of a type other than "app" is never loaded.
TEST_F(KitRequest, DeadKitsAndKitsOfAnotherTypeNeverServe) {
  Setup({{"com.test.noentry", "NoEntry"}, {"com.test.service", "Service"}});
  ASSERT_TRUE(manager.Init());
  EXPECT_TRUE(logs_.Has(Level::Error, "LoadKit method init invoke failed. dllPath: " + KitDir("com.test.noentry") +
                                          "libtest_noentry_kit.so(LoadManger::LoadKit)"));
  EXPECT_EQ("907135001", Status(17, Request("NoEntry.Echo")));
  EXPECT_TRUE(logs_.Has(Level::Error, "LoadManger.Invoke failed. unload packageName = com.test.noentry "
                                      "msgIdentify = 17(LoadManger::Invoke)"));
  EXPECT_EQ("907135002", Status(18, Request("Service.Echo")));
  // Dead: an entry without a handle, which no load replaces.
  ASSERT_EQ(1u, loader.loadedKits->count("com.test.noentry"));
  EXPECT_EQ(nullptr, loader.loadedKits->at("com.test.noentry"));
  EXPECT_TRUE(loader.LoadKitDll("com.test.noentry"));
  EXPECT_EQ(1u, Lines("Load kit to load LibraryEx begin"));  // the dead kit's only load
  EXPECT_FALSE(loader.HasKit("com.test.service"));
}

// The gates after dispatch: the force update flag (NoEntry's package has it,
// so it is never loaded), the export, and the api level with the update state.
// The framework's package is flagged too, but its uri never meets those gates.
TEST_F(KitRequest, GatesRefuseWithTheirCodesAndTheKitsServeOn) {
  for (const char* package : {"com.test.main", "com.test.lazy", "com.test.noentry"}) InstallKit(package);
  WriteRemoteConfig({Main(), Lazy(), {"com.test.noentry", "NoEntry", "1"}, {"com.vantrel.framework", "FRAMEWORK", "1"}});
  ASSERT_TRUE(manager.Init());
  const struct {
    const char *uri, *sdk, *level;
    bool updating, newVersion;
    const char *status, *reason;
  } cases[] = {
      {"NoEntry.Echo", "5.3.0.300", "1", false, false, "907135016", "TARNCORE Need force update. "},
      {"NoEntry.Echo", "5.3.0.300", "1", true, false, "907135012", nullptr},
      {"NoEntry.Echo", "5.2.0.300", "1", true, false, "907135006", "tarncore is updating. "},
      {"NoEntry.Echo", "", "1", true, false, "907135006", nullptr},
      {"Main.Nothing", "5.3.0.300", "1", false, false, "907135001", nullptr},
      {"Main.Missing", "5.3.0.300", "1", false, false, "907135001", nullptr},
      {"Lazy.Echo", "5.3.0.300", "9", false, false, "907135008", "tarncore need update, but not have new version. "},
      {"Main.Echo", "5.3.0.300", "9", false, true, "907135013", nullptr},
      {"Main.Echo", "5.3.0.300", "9", true, true, "907135012", nullptr},
      {"Main.Echo", "5.3.0.300", "1", false, false, "0", nullptr},
      // A framework uri is served past both: its package's "1", the level, the update;
      // like every uri it is found whatever its case.
      {"Framework.VerifyMessage", "5.3.0.300", "9", true, false, "0", nullptr},
      {"FRAMEWORK.verifymessage", "5.3.0.300", "9", true, false, "0", nullptr},
  };
  int32_t id = 20;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(id) + " " + c.uri);
    hooks.updating = c.updating;
    hooks.newVersion = c.newVersion;
    Json::Value answer;
    EXPECT_EQ(c.status, Status(id++, Request(c.uri, "{}", c.sdk, c.level), &answer));
    if (c.reason) {
      EXPECT_EQ(c.reason, answer["header"]["error_reason"].asString());
    }
  }
  EXPECT_TRUE(logs_.Has(Level::Info, "this kit = NoEntry no need load forceupdate = 1(LoadManger::LoadKit)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "The kit = NoEntry forceupdate = 1(KitManagerApi::InvokeToKit)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "tarn is updating in forceUpdate, sdk_version = 5.2.0.300(KitManagerApi::InvokeToKit)"));
  EXPECT_FALSE(loader.HasKit("com.test.noentry"));  // the flag stands before the load
  EXPECT_TRUE(logs_.Has(Level::Error, "uri not supported. msgIdentify = 24 uri = main.nothing(KitManagerApi::Invoke)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "kit method invoke failed.packageName = com.test.main method = Missing "
                                      "error_code = 127 msgIdentify = 25(LoadManger::Invoke)"));
  EXPECT_TRUE(loader.HasKit("com.test.lazy"));  // a request the level gate refuses can still cause a load
  EXPECT_EQ(0u, Lines("method = Echo msgIdentify = 26"));
  EXPECT_EQ(2u, Lines("kitAPiInfo message kitName.FRAMEWORK"));
  EXPECT_EQ(0u, Lines("The kit = FRAMEWORK"));

  // Another client id from this process is verified anew and, with no scope
  // service, refused; with verification switched off nothing is asked.
  EXPECT_EQ("907135004", Status(id++, Request("Main.Echo", "{}", "5.3.0.300", "1", "c2")));
  config.verifyEnabled = false;
  EXPECT_EQ("0", Status(id++, Request("Main.Echo", "{}", "5.3.0.300", "1", "c3")));
}

TEST_F(KitRequest, BadAnswersAreDroppedAndTheContainerServesOn) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  std::string response;
  // Not JSON but holding "syncMessageId", an id that names no request, a
  // function that never answers (a success), one that throws: no answer for any.
  int32_t id = 40;
  for (const char* api : {"Main.NotJson", "Main.UnknownId", "Main.Never", "Main.Throw"}) {
    EXPECT_EQ(9003, Send(id++, Request(api), response, 700)) << api;
  }
  EXPECT_EQ(1u, Lines("convertReqMess data format error."));
  EXPECT_EQ(2u, logs_.Count(Level::Error, "kit method invoke failed.GetServerResCallBackByMessageId is null"
                                          "(LoadManger::Invoke)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "KitManagerApi.Invoke failed.(KitManagerApi::Invoke)"));
  EXPECT_EQ(0u, Lines("Invoke failed. status_code"));
  // Their requests wait in the table; the next one is served.
  EXPECT_EQ(4u, Callbacks());
  EXPECT_EQ("0", Status(45, Request("Main.Echo")));

  // A second answer is dropped, in the call or later from the kit's thread.
  Json::Value answer;
  ASSERT_EQ("0", Status(46, Request("Main.Twice"), &answer));
  EXPECT_EQ(1, answer["body"]["answer"].asInt());
  ASSERT_EQ("0", Status(47, Request("Main.TwiceLate"), &answer));
  EXPECT_EQ("first", answer["body"]["late"].asString());
  EXPECT_TRUE(Eventually([&] { return Lines("GetServerResCallBackByMessageId is null") == 5; }));
  EXPECT_TRUE(Eventually([&] { return Callbacks() == 4; }));
  EXPECT_EQ("0", Status(48, Request("Main.Echo")));
}

}  // namespace

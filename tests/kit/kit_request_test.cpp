// Requests from a client over the real socket, through the pipeline's gates,
// the kit manager's decision tree and the kit libraries, back to the client.
#include <unistd.h>

#include <mutex>
#include <thread>
#include <vector>

#include "kit_fixture.h"

namespace {

using tarn::log::Level;
using tarn::test::Eventually;
using tarn::test::kNoAnswer;
using tarn::test::Package;

class KitRequest : public tarn::test::KitRequestFixture {
 protected:
  std::size_t Callbacks() { return ServerManager::GetInstance().CallbackCount(); }
};

TEST_F(KitRequest, AnswerGivenInsideTheCallReachesTheClient) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  Json::Value answer;
  ASSERT_EQ("0", StatusOf(11, Request("Main.Echo", R"({"q":"v"})"), &answer));
  EXPECT_EQ("v", answer["body"]["echo"]["q"].asString());
  EXPECT_EQ("Main.Echo", answer["header"]["api_name"].asString());
  EXPECT_TRUE(log.Has(Level::Info, "kit method invoke success.packageName = com.test.main method = Echo "
                                   "msgIdentify = 11(LoadManger::Invoke)"));
  // The answer leaves before the request's thread has finished.
  ASSERT_TRUE(Eventually([&] { return Lines("RequestInvoke.excute end.") == 1 && Callbacks() == 0; }));
  // The gates ran in their order, then the call.
  const std::vector<std::string> order = {"KitManagerApi.Invoke start. msgIdentify = 11",
                                          "KitManagerApi.CheckApiLevel begin.",
                                          "KitManagerApi.CheckApiLevel end.",
                                          "KitManagerApi.CheckApiPermission begin.",
                                          "no need to check permission.",
                                          "KitManagerApi.CheckApiPermission end.",
                                          "kit method invoke success.",
                                          "KitManagerApi.Invoke end."};
  std::size_t next = 0;
  for (const auto& record : log.Records()) {
    if (next < order.size() && record.text.find(order[next]) != std::string::npos) ++next;
  }
  EXPECT_EQ(order.size(), next) << "missing: " << (next < order.size() ? order[next] : "");
}

TEST_F(KitRequest, LateAnswerFromTheKitsThreadFindsItsRequestByTheId) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  Json::Value answer;
  ASSERT_EQ("0", StatusOf(12, Request("Main.Late"), &answer));
  // A text with "header" goes out as the kit wrote it.
  EXPECT_EQ("12", answer["header"]["syncMessageId"].asString());
  EXPECT_EQ("once", answer["body"]["late"].asString());
  EXPECT_TRUE(log.Has(Level::Info, "kit method invoke success.packageName = com.test.main method = Late "
                                   "msgIdentify = 12(LoadManger::Invoke)"));
  EXPECT_TRUE(Eventually([&] { return Callbacks() == 0; }));
}

TEST_F(KitRequest, KitThatIsNotStartedAtStartUpLoadsOnTheFirstRequest) {
  Setup({Main(), Lazy()});
  ASSERT_TRUE(manager.Init());
  EXPECT_FALSE(loader.HasKit("com.test.lazy"));
  Json::Value answer;
  ASSERT_EQ("0", StatusOf(13, Request("Lazy.Echo"), &answer));
  EXPECT_EQ("Lazy", answer["body"]["kit"].asString());
  EXPECT_EQ(1, answer["body"]["initCount"].asInt());
  EXPECT_TRUE(log.Has(Level::Info, "load kit. msgIdentify = 13 packageName = com.test.lazy(KitManagerApi::InvokeToKit)"));
  ASSERT_EQ("0", StatusOf(14, Request("Lazy.Echo"), &answer));
  EXPECT_EQ(1, answer["body"]["initCount"].asInt());
  EXPECT_EQ(1u, Lines("load kit. msgIdentify"));
}

TEST_F(KitRequest, KitWhoseManifestChangedIsRefusedAndTriedAgainByEachRequest) {
  Setup({Main()});
  AppendTo(KitDir("com.test.main") + "kitManifest.json", "\n");
  ASSERT_TRUE(manager.Init());
  Json::Value answer;
  EXPECT_EQ("907135002", StatusOf(15, Request("Main.Echo"), &answer));
  EXPECT_EQ("load kit failed. ", answer["header"]["error_reason"].asString());
  EXPECT_TRUE(log.Has(Level::Error, "Load kit failed com.test.main msgIdentify = 15(KitManagerApi::InvokeToKit)"));
  EXPECT_EQ("907135002", StatusOf(16, Request("Main.Echo")));
  // Once at start, once per request: nothing of a failed test is remembered.
  EXPECT_EQ(3u, Lines("dllPluginVerify is not equal to kitManifVerify!"));
  EXPECT_EQ(0u, Lines("invoke kit init begin."));
}

TEST_F(KitRequest, DeadKitAnswersApiNotSupportedAndIsNeverLoadedAgain) {
  Setup({{"com.test.noentry", "NoEntry"}});
  ASSERT_TRUE(manager.Init());
  for (int32_t id : {17, 18}) {
    Json::Value answer;
    EXPECT_EQ("907135001", StatusOf(id, Request("NoEntry.Echo"), &answer));
    EXPECT_EQ("API is not supported. ", answer["header"]["error_reason"].asString());
    EXPECT_TRUE(log.Has(Level::Error, "LoadManger.Invoke failed. unload packageName = com.test.noentry "
                                      "msgIdentify = " + std::to_string(id) + "(LoadManger::Invoke)"));
    EXPECT_TRUE(log.Has(Level::Error, "Do InvokeToKit failed. msgIdentify  = " + std::to_string(id) +
                                          "(KitManagerApi::InvokeToKit)"));
  }
  EXPECT_EQ(1u, Lines("Load kit to load LibraryEx begin"));
  EXPECT_TRUE(log.Has(Level::Error, "LoadKit method init invoke failed. dllPath: " + KitDir("com.test.noentry") +
                                        "libtest_noentry_kit.so(LoadManger::LoadKit)"));
  // Dead: an entry without a handle, which no load replaces.
  ASSERT_EQ(1u, loader.loadedKits->count("com.test.noentry"));
  EXPECT_EQ(nullptr, loader.loadedKits->at("com.test.noentry"));
  EXPECT_TRUE(loader.LoadKitDll("com.test.noentry"));
  EXPECT_TRUE(log.Has(Level::Error, "Load kit failed packageName = com.test.noentry(LoadManger::LoadKitDll)"));
  EXPECT_EQ(1u, Lines("Load kit to load LibraryEx begin"));
}

TEST_F(KitRequest, KitOfAnotherTypeIsNeverLoaded) {
  Setup({{"com.test.service", "Service"}});
  ASSERT_TRUE(manager.Init());
  EXPECT_EQ("907135002", StatusOf(19, Request("Service.Echo")));
  EXPECT_EQ("907135002", StatusOf(20, Request("Service.Echo")));
  EXPECT_EQ(0u, Lines("Load kit to load LibraryEx begin"));
  EXPECT_FALSE(loader.HasKit("com.test.service"));
}

TEST_F(KitRequest, ForceUpdateRefusesTheKitWithOrWithoutAnUpdateRunning) {
  Setup({Main("1")});
  ASSERT_TRUE(manager.Init());
  EXPECT_TRUE(log.Has(Level::Info, "this kit = Main no need load forceupdate = 1(LoadManger::LoadKit)"));
  EXPECT_FALSE(loader.HasKit("com.test.main"));

  Json::Value answer;
  EXPECT_EQ("907135016", StatusOf(21, Request("Main.Echo"), &answer));
  EXPECT_EQ("TARNCORE Need force update. ", answer["header"]["error_reason"].asString());
  EXPECT_TRUE(log.Has(Level::Info, "The kit = Main forceupdate = 1(KitManagerApi::InvokeToKit)"));

  hooks.updating = true;
  EXPECT_EQ("907135012", StatusOf(22, Request("Main.Echo", "{}", "5.3.0.300")));
  EXPECT_EQ("907135006", StatusOf(23, Request("Main.Echo", "{}", "5.2.0.300"), &answer));
  EXPECT_EQ("tarncore is updating. ", answer["header"]["error_reason"].asString());
  EXPECT_EQ("907135006", StatusOf(24, Request("Main.Echo", "{}", "")));
  EXPECT_TRUE(log.Has(Level::Error, "tarn is updating in forceUpdate, sdk_version = 5.2.0.300(KitManagerApi::InvokeToKit)"));
  // The gate stands before the load.
  EXPECT_FALSE(loader.HasKit("com.test.main"));
}

TEST_F(KitRequest, ForceUpdateFlagTwoIsServedLikeZero) {
  Setup({Main("2")});
  ASSERT_TRUE(manager.Init());
  EXPECT_TRUE(loader.HasKit("com.test.main"));
  EXPECT_EQ("0", StatusOf(25, Request("Main.Echo")));
}

TEST_F(KitRequest, FrameworkUriNeverReachesTheForceUpdateGate) {
  // Were the gate asked, this package would refuse the framework's kit name.
  Setup({Main()});
  WriteRemoteConfig({Main(), {"com.vantrel.framework", "FRAMEWORK", "1"}});
  ASSERT_TRUE(manager.Init());
  Json::Value answer;
  ASSERT_EQ("0", StatusOf(26, Request("Framework.Ping"), &answer));
  EXPECT_EQ("Framework.Ping", answer["body"]["pong"].asString());
  EXPECT_EQ(1, hooks.frameworkCalls.load());
  EXPECT_EQ(0u, Lines("The kit = FRAMEWORK"));
  EXPECT_EQ(0u, Lines("KitManagerApi.CheckApiLevel begin."));
}

TEST_F(KitRequest, UnknownUriAndMissingExportAreNotSupported) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  EXPECT_EQ("907135001", StatusOf(27, Request("Main.Nothing")));
  EXPECT_TRUE(log.Has(Level::Error, "uri not supported. msgIdentify = 27 uri = main.nothing(KitManagerApi::Invoke)"));
  EXPECT_EQ(0u, Lines("The kit = "));

  EXPECT_EQ("907135001", StatusOf(28, Request("Main.Missing")));
  EXPECT_TRUE(log.Has(Level::Error, "kit method invoke failed.packageName = com.test.main method = Missing "
                                    "error_code = 127 msgIdentify = 28(LoadManger::Invoke)"));
  // The kit stays loaded and serves on.
  EXPECT_EQ("0", StatusOf(29, Request("Main.Echo")));
}

TEST_F(KitRequest, LevelGateRefusesAfterTheLoad) {
  Setup({Main(), Lazy()});
  ASSERT_TRUE(manager.Init());
  Json::Value answer;
  EXPECT_EQ("907135008", StatusOf(30, Request("Lazy.Echo", "{}", "5.3.0.300", "9"), &answer));
  EXPECT_EQ("tarncore need update, but not have new version. ", answer["header"]["error_reason"].asString());
  EXPECT_TRUE(log.Has(Level::Error, "CheckApiLevel failed. msgIdentify = 30(KitManagerApi::InvokeToKit)"));
  // A request that the gates refuse can still cause a load.
  EXPECT_TRUE(loader.HasKit("com.test.lazy"));
  EXPECT_EQ(0u, Lines("KitManagerApi.CheckApiPermission begin."));

  hooks.newVersion = true;
  EXPECT_EQ("907135013", StatusOf(31, Request("Main.Echo", "{}", "5.3.0.300", "9")));
  hooks.updating = true;
  EXPECT_EQ("907135012", StatusOf(32, Request("Main.Echo", "{}", "5.3.0.300", "9")));
}

TEST_F(KitRequest, WithoutVerificationThePermissionGateIsNotAsked) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  config.verifyEnabled = false;
  EXPECT_EQ("0", StatusOf(33, Request("Main.Echo")));
  EXPECT_EQ(1u, Lines("KitManagerApi.CheckApiPermission begin."));
  EXPECT_EQ(1u, Lines("KitManagerApi.CheckApiPermission end."));
  EXPECT_EQ(0u, Lines("no need to check permission."));
}

TEST_F(KitRequest, BadAnswersAreDroppedAndTheContainerServesOn) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  std::string response;
  // Not JSON, but holding "syncMessageId".
  EXPECT_EQ(9003, Send(40, Request("Main.NotJson"), response, kNoAnswer));
  EXPECT_EQ(1u, Lines("convertReqMess data format error."));
  // An id that names no request.
  EXPECT_EQ(9003, Send(41, Request("Main.UnknownId"), response, kNoAnswer));
  // The key only in the body: the header has no id.
  EXPECT_EQ(9003, Send(42, Request("Main.BodyOnlyId"), response, kNoAnswer));
  EXPECT_EQ(3u, log.Count(Level::Error, "kit method invoke failed.GetServerResCallBackByMessageId is null"
                                        "(LoadManger::Invoke)"));
  // A function that never answers counts as a success.
  EXPECT_EQ(9003, Send(43, Request("Main.Never"), response, kNoAnswer));
  // An exception is logged, and nobody answers.
  EXPECT_EQ(9003, Send(44, Request("Main.Throw"), response, kNoAnswer));
  EXPECT_TRUE(log.Has(Level::Error, "KitManagerApi.Invoke failed.(KitManagerApi::Invoke)"));
  EXPECT_EQ(0u, Lines("Invoke failed. status_code"));
  // Their requests wait in the table; the next one is served.
  EXPECT_EQ(5u, Callbacks());
  EXPECT_EQ("0", StatusOf(45, Request("Main.Echo")));
  EXPECT_EQ(0u, Lines("kit method invoke success.packageName = com.test.main method = NotJson"));
}

TEST_F(KitRequest, SecondAnswerToOneRequestIsDropped) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  Json::Value answer;
  ASSERT_EQ("0", StatusOf(46, Request("Main.Twice"), &answer));
  EXPECT_EQ(1, answer["body"]["answer"].asInt());
  EXPECT_TRUE(Eventually([&] { return Lines("GetServerResCallBackByMessageId is null") == 1; }));

  // Later, from the kit's thread: by the id, again by the id, then without it.
  ASSERT_EQ("0", StatusOf(47, Request("Main.TwiceLate"), &answer));
  EXPECT_EQ("first", answer["body"]["late"].asString());
  EXPECT_TRUE(Eventually([&] { return Lines("GetServerResCallBackByMessageId is null") == 3; }));
  EXPECT_EQ(1u, Lines("method = TwiceLate msgIdentify = 47"));
  EXPECT_EQ(0u, Callbacks());
  EXPECT_EQ("0", StatusOf(48, Request("Main.Echo")));
}

TEST_F(KitRequest, KitBroadcastsThroughTheCallbackItsEntryWasGiven) {
  Setup({Main()});
  ASSERT_TRUE(manager.Init());
  std::mutex mutex;
  std::vector<std::string> broadcasts;
  client.RegisterMessageCallback(IpcBroadcastMessageCode, [&](TagIPCMessageItem& item) {
    std::lock_guard lock(mutex);
    broadcasts.emplace_back(item.body ? item.body : "");
  });
  Json::Value answer;
  ASSERT_EQ("0", StatusOf(49, Request("Main.Broadcast", R"({"news":"kit"})"), &answer));
  EXPECT_EQ("sent", answer["body"]["broadcast"].asString());
  ASSERT_TRUE(Eventually([&] {
    std::lock_guard lock(mutex);
    return !broadcasts.empty();
  }));
  std::lock_guard lock(mutex);
  Json::Value broadcast = tarn::test::ParseJson(broadcasts.front());
  EXPECT_EQ("kit", broadcast["notifyMsg"]["news"].asString());
  EXPECT_TRUE(log.Has(Level::Info, "ServerManager.broadcastSendHandle start.(ServerManager::broadcastSendHandle)"));
}

TEST_F(KitRequest, ParallelClientsEachGetTheirOwnAnswers) {
  Setup({Main(), Lazy()});
  ASSERT_TRUE(manager.Init());
  constexpr int kThreads = 4;
  constexpr int kPerThread = 15;
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      TarnCoreIPCMessageClient own(IpcAddressClientSide, false, true);
      for (int i = 0; i < kPerThread; ++i) {
        const int32_t id = 1000 + t * 100 + i;
        const char* uri = i % 3 == 0 ? "Main.Late" : (i % 3 == 1 ? "Main.Echo" : "Lazy.Echo");
        const std::string marker = std::to_string(id);
        TagIPCMessageItem item;
        item.target = IpcAddressContainer;
        item.source = IpcAddressClientSide;
        item.messageCode = IpcRequestMessageCode;
        item.reserved = -1;
        item.syncMessageId = id;
        std::string text = Request(uri, "{\"n\":\"" + marker + "\"}");
        item.body = text.data();
        item.bodySize = static_cast<uint32_t>(text.size() + 1);
        std::string response;
        if (own.SendMessageSync(item, response, tarn::test::kLong) != 0) continue;
        Json::Value answer = tarn::test::ParseJson(response);
        const bool ok = i % 3 == 0 ? answer["header"]["syncMessageId"].asString() == marker
                                   : (i % 3 == 1 ? answer["body"]["echo"]["n"].asString() == marker
                                                 : answer["body"]["kit"].asString() == "Lazy");
        if (ok) ++good;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kPerThread, good.load());
  EXPECT_TRUE(Eventually([&] { return Callbacks() == 0; }));
}

}  // namespace

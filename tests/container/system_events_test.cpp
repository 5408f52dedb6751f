// Session and network events, fanned out to the test kits behind the
// container's own gates, and the wake-up of a failed configuration check.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "container/SystemEvents.h"
#include "kit/kit_fixture.h"
#include "platform/os/event.h"

using tarn::log::Level;
using tarn::test::Eventually;
using tarn::test::ParseJson;

using SystemEvents = tarn::test::KitRequestFixture;

// Each loaded kit whose kitName and event name make the uri, whatever its case,
// hears the event (the main kit broadcasts its two texts); one that declares it
// without the export is only logged. An event at start-up waits for the kits.
TEST_F(SystemEvents, ReachTheKitsThatDeclareThem) {
  Setup({Main(), Lazy()});
  std::thread pipe([] { NotifyWinEventToKit(6, 3); });
  ASSERT_TRUE(Eventually([&] { return logs_.Contains("NotifyWinEventToKit start."); }));
  EXPECT_FALSE(logs_.Contains("NotifytoKit"));  // past its first line it can only be waiting
  ASSERT_TRUE(manager.Init());
  pipe.join();
  EXPECT_EQ(1u, Lines("LoadManger.NotifyWinEventToKit success.packageName = com.test.main"));
  EXPECT_TRUE(logs_.Has(Level::Error, "LoadManger.NotifyWinEventToKit failed. unload packageName = com.test.lazy"
                                      "(LoadManger::NotifyWinEventToKit)"));

  std::mutex mutex;
  std::vector<Json::Value> notices;
  client_.RegisterMessageCallback(IpcBroadcastMessageCode, [&](TagIPCMessageItem& item) {
    std::lock_guard lock(mutex);
    notices.push_back(ParseJson(item.body ? item.body : "")["notifyMsg"]);
  });
  ASSERT_EQ("0", Status(50, tarn::test::Request("Lazy.Echo")));  // loaded, without the event's export
  // The main kit's event under another kit's uri, and an empty entry: neither is called.
  config.kitApiDispathMap["Other.OnWinSessionChanged"] =
      std::make_shared<KitApiDetailInfo>(*config.kitApiDispathMap.at("Main.OnWinSessionChanged"));
  config.kitApiDispathMap["Broken.OnWinSessionChanged"] = nullptr;
  logs_.Clear();
  ServerManager::GetInstance().SendServiceStartBroadcast();  // the gates' notify, with version and kits
  EXPECT_TRUE(NotifyWinEventToKit(5, 2));
  EXPECT_TRUE(NotifyNetworkChangeToKit(-1));
  ASSERT_TRUE(Eventually([&] {
    std::lock_guard lock(mutex);
    return notices.size() >= 3;
  }));
  std::lock_guard lock(mutex);
  ASSERT_EQ(3u, notices.size());
  EXPECT_EQ(kInstalledVersion, notices[0]["version"].asString());
  EXPECT_EQ(2u, notices[0]["kits"].size());
  EXPECT_EQ(ParseJson(R"({"session":["5","2"]})"), notices[1]);
  EXPECT_EQ(ParseJson(R"({"network":["-1",""]})"), notices[2]);
  EXPECT_TRUE(logs_.Has(Level::Error, "LoadManger.NotifyWinEventToKit failed.packageName = com.test.lazy127"
                                      "(LoadManger::NotifyWinEventToKit)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "apiName lazy.onwinsessionchangedInvoke failed.(NotifytoKit)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "kitApiDetailInfoTemp nullptr(NotifytoKit)"));
  EXPECT_EQ(1u, Lines("Invoke failed.(NotifytoKit)"));
}

TEST_F(SystemEvents, NetworkUpWakesAFailedConfigurationCheckOnce) {
  config.configEvent = tarn::os::Event::Create(false, false);
  config.configCheckDone = false;
  NetworkConnectForUpdate();
  NetworkConnectForUpdate();
  EXPECT_EQ(1u, logs_.Count(Level::Info, "Check update not success after startup 1 minutes, check it "
                                         "now.(NetworkConnectForUpdate)"));
  EXPECT_TRUE(config.configCheckDone);
  EXPECT_EQ(tarn::os::WaitForSingle(config.configEvent, 0), tarn::os::kWaitObject0);
}

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "config/ConfigManager.h"
#include "container/SystemEvents.h"
#include "kit/KitManagerApi.h"
#include "platform/log/log_capture.h"
#include "platform/os/event.h"

using tarn::log::Level;
using tarn::log::LogCapture;

// No kit is loaded here, so every delivery fails in the kit runtime and the
// fan-out logs the uri it tried: which uris get that line shows who matched.
class SystemEventsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ConfigManager::GetInstance().ResetForTesting();
    KitManagerApi::GetInstance().isInitComplete = true;
  }
  void TearDown() override { ConfigManager::GetInstance().ResetForTesting(); }

  void AddApi(const std::string& uri, const std::string& kitName) {
    auto detail = std::make_shared<KitApiDetailInfo>();
    detail->uri = uri;
    detail->apiName = uri.substr(uri.find('.') + 1);
    detail->kitName = kitName;
    detail->packageName = "com.test." + kitName;
    detail->invokeType = "DLL";
    ConfigManager::GetInstance().kitApiDispathMap[uri] = detail;
  }
  bool Tried(const std::string& uri) const { return log_.Has(Level::Error, "apiName " + uri + "Invoke failed.(NotifytoKit)"); }

  LogCapture log_;
};

TEST_F(SystemEventsTest, SessionAndNetworkChangesReachOnlyTheirSubscribersIgnoringCase) {
  AddApi("account.onwinsessionchanged", "Account");
  AddApi("Mail.OnWinSessionChanged", "Mail");
  AddApi("Other.OnWinSessionChanged", "NotOther");  // kitName decides, not the uri
  AddApi("Account.OnWinNetworkChanged", "Account");
  AddApi("Account.Request", "Account");
  ConfigManager::GetInstance().kitApiDispathMap["Broken.OnWinSessionChanged"] = nullptr;

  EXPECT_TRUE(NotifyWinEventToKit(5, 2));
  EXPECT_TRUE(log_.Has(Level::Info, "NotifyWinEventToKit start. strEventType5strSessionId 2(NotifyWinEventToKit)"));
  EXPECT_TRUE(Tried("account.onwinsessionchanged"));
  EXPECT_TRUE(Tried("mail.onwinsessionchanged"));
  EXPECT_FALSE(Tried("other.onwinsessionchanged"));
  EXPECT_FALSE(Tried("account.onwinnetworkchanged"));
  EXPECT_FALSE(Tried("account.request"));
  EXPECT_TRUE(log_.Has(Level::Error, "kitApiDetailInfoTemp nullptr(NotifytoKit)"));
  EXPECT_TRUE(log_.Has(Level::Info, "NotifyWinEventToKit end. (NotifyWinEventToKit)"));

  log_.Clear();
  EXPECT_TRUE(NotifyNetworkChangeToKit(-1));
  EXPECT_TRUE(log_.Has(Level::Info, "NotifyNetworkChangeToKit start. Network status-1(NotifyNetworkChangeToKit)"));
  EXPECT_TRUE(Tried("account.onwinnetworkchanged"));
  EXPECT_EQ(1u, log_.CountContaining("Invoke failed.(NotifytoKit)"));
}

TEST_F(SystemEventsTest, SessionEventWaitsForInitComplete) {
  AddApi("Account.OnWinSessionChanged", "Account");
  KitManagerApi::GetInstance().isInitComplete = false;
  std::atomic<bool> done{false};
  std::thread pipe([&] {
    NotifyWinEventToKit(6, 3);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(done.load());
  EXPECT_FALSE(Tried("account.onwinsessionchanged"));
  KitManagerApi::GetInstance().isInitComplete = true;
  pipe.join();
  EXPECT_TRUE(Tried("account.onwinsessionchanged"));
}

TEST_F(SystemEventsTest, NetworkUpWakesAFailedConfigurationCheckOnce) {
  auto& config = ConfigManager::GetInstance();
  config.configEvent = tarn::os::Event::Create(false, false);
  config.configCheckDone = false;
  NetworkConnectForUpdate();
  NetworkConnectForUpdate();
  EXPECT_EQ(1u, log_.Count(Level::Info, "Check update not success after startup 1 minutes, check it "
                                        "now.(NetworkConnectForUpdate)"));
  EXPECT_TRUE(config.configCheckDone);
  EXPECT_EQ(tarn::os::WaitForSingle(config.configEvent, 0), tarn::os::kWaitObject0);
}

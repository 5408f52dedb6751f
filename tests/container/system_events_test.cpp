// The fan-out's waits and wake-ups; delivery to loaded kits is in the kit suite.
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "config/ConfigManager.h"
#include "container/SystemEvents.h"
#include "ipc/ipc_test_util.h"
#include "kit/KitManagerApi.h"
#include "platform/log/log_capture.h"
#include "platform/os/event.h"

using tarn::log::Level;
using tarn::log::LogCapture;

class SystemEventsTest : public ::testing::Test {
 protected:
  void SetUp() override { ConfigManager::GetInstance().ResetForTesting(); }
  void TearDown() override {
    ConfigManager::GetInstance().ResetForTesting();
    KitManagerApi::GetInstance().isInitComplete = true;
  }
  LogCapture log_;
};

// No kit is loaded here, so a delivery fails in the kit runtime and the fan-out
// logs the uri it tried.
TEST_F(SystemEventsTest, SessionEventWaitsForInitComplete) {
  auto detail = std::make_shared<KitApiDetailInfo>();
  detail->uri = "Account.OnWinSessionChanged";
  detail->apiName = "OnWinSessionChanged";
  detail->kitName = "Account";
  ConfigManager::GetInstance().kitApiDispathMap[detail->uri] = detail;
  KitManagerApi::GetInstance().isInitComplete = false;
  std::thread pipe([] { NotifyWinEventToKit(6, 3); });
  ASSERT_TRUE(tarn::test::Eventually([&] { return log_.Contains("NotifyWinEventToKit start."); }));
  // Past its first line the event can only be waiting: nothing was tried yet.
  EXPECT_FALSE(log_.Contains("Invoke failed."));
  KitManagerApi::GetInstance().isInitComplete = true;
  pipe.join();
  EXPECT_TRUE(log_.Has(Level::Error, "apiName account.onwinsessionchangedInvoke failed.(NotifytoKit)"));
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

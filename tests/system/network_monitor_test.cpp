#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "container/NetworkMonitor.h"
#include "platform/log/log_capture.h"
#include "platform/os/message_queue.h"
#include "thread/ThreadManager.h"

using tarn::log::Level;
using tarn::log::LogCapture;
using namespace tarn::container;
using namespace tarn::os;

namespace {

// Connectivity values pushed by the test, one per change signal.
class FakeSource : public ConnectivitySource {
 public:
  std::int32_t Open() override { return openResult; }
  bool Current(std::uint32_t& connectivity) override {
    threadId = tarn::os::GetCurrentThreadId();
    connectivity = value;
    return true;
  }
  tarn::os::Waitable* ChangeSignal() override { return signal.get(); }
  bool TakeChanges() override { return ++takes > 0; }
  void Close() override {}
  void Change(std::uint32_t next) {
    value = next;
    signal->Set();
  }

  std::int32_t openResult = 0;
  std::atomic<std::uint32_t> value{0}, threadId{0};
  std::atomic<int> takes{0};
  std::shared_ptr<tarn::os::Event> signal = tarn::os::Event::Create(false, false);
};

class NetworkMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VantrelThread::ThreadManager::ResetInstanceForTesting();
    SetConnectivitySourceForTesting(&source);
    SetNetworkMonitorCallbacks({[this](std::int32_t status) { return Record("kit " + std::to_string(status)); },
                                [this] { Record("update"); }});
  }
  void TearDown() override {
    SetNetworkMonitorCallbacks({});
    SetConnectivitySourceForTesting(nullptr);
    VantrelThread::ThreadManager::ResetInstanceForTesting();
  }
  bool Record(const std::string& call) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(call);
    changed.notify_all();
    return true;
  }
  // Waits until `count` calls were made; the bound is only for liveness.
  std::vector<std::string> WaitCalls(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(20), [&] { return calls.size() >= count; });
    return calls;
  }

  FakeSource source;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> calls;
};

TEST_F(NetworkMonitorTest, InitialAnswerThenChangesUntilExit) {
  source.Change(kConnectivityIpv4Internet);
  LogCapture log;
  std::future<int> monitor = std::async(std::launch::async, [] { return InitNetworkMonitor(); });

  // Connected at start: status 0 once, and no update check for that.
  EXPECT_EQ(WaitCalls(1), (std::vector<std::string>{"kit 0"}));
  // Internet to local only, then the same value again (no change), then IPv6
  // internet, then nothing at all.
  source.Change(kConnectivityIpv4LocalNetwork);
  WaitCalls(2);
  const int takes = source.takes;
  source.Change(kConnectivityIpv4LocalNetwork);
  for (int i = 0; i < 2000 && source.takes == takes; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  source.Change(kConnectivityIpv4LocalNetwork | kConnectivityIpv6Internet);
  WaitCalls(4);
  // A quit message doesn't end the loop; the process-exit event does.
  ASSERT_NE(source.threadId.load(), 0u);
  tarn::os::PostThreadMessage(source.threadId, tarn::os::kWmQuit, 0, 0);
  source.Change(kConnectivityDisconnected);
  EXPECT_EQ(WaitCalls(5), (std::vector<std::string>{"kit 0", "kit -1", "kit 0", "update", "kit -1"}));

  VantrelThread::ThreadManager::Instance().processExitEvent->Set();
  ASSERT_EQ(monitor.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(monitor.get(), 0);
  EXPECT_EQ(WaitCalls(5).size(), 5u);

  EXPECT_TRUE(log.Has(Level::Info, "is Connected: -1, 0(InitNetworkMonitor)"));
  EXPECT_TRUE(log.Has(Level::Info, "Network disconnect, newConnectivity = 32(NetworkManager::ConnectivityChanged)"));
  EXPECT_TRUE(log.Has(Level::Info, "Network connect, newConnectivity = 1056(NetworkManager::ConnectivityChanged)"));
  EXPECT_TRUE(log.Has(Level::Info, "Network disconnect, newConnectivity = 0(NetworkManager::ConnectivityChanged)"));
}

TEST_F(NetworkMonitorTest, NotConnectedAtStartAndSourceThatFails) {
  source.Change(kConnectivityIpv4LocalNetwork);
  VantrelThread::ThreadManager::Instance().processExitEvent->Set();
  LogCapture log;
  EXPECT_EQ(InitNetworkMonitor(), 0);
  EXPECT_EQ(WaitCalls(1), (std::vector<std::string>{"kit -1"}));
  EXPECT_TRUE(log.Has(Level::Info, "is Connected: 0, 0(InitNetworkMonitor)"));

  source.openResult = static_cast<std::int32_t>(0x80070061);
  log.Clear();
  EXPECT_EQ(InitNetworkMonitor(), 0);
  EXPECT_TRUE(log.Has(Level::Info, "CLSID_NetworkListManager: -2147024799(InitNetworkMonitor)"));
  EXPECT_EQ(WaitCalls(1).size(), 1u);  // nothing told on a failed open
}

}  // namespace

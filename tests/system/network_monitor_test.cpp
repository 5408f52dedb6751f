#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/log/log_capture.h"
#include "platform/os/message_queue.h"
#include "support/NetworkMonitor.h"
#include "thread/ThreadManager.h"

using tarn::log::Level;
using tarn::log::LogCapture;
using namespace tarn::support;

namespace {

// Connectivity values pushed by the test, one per change signal.
class FakeSource : public ConnectivitySource {
 public:
  std::int32_t Open() override { return openResult; }
  bool Current(std::uint32_t& connectivity) override {
    std::lock_guard<std::mutex> lock(mutex_);
    threadId = tarn::os::GetCurrentThreadId();
    connectivity = value_;
    return true;
  }
  tarn::os::Waitable* ChangeSignal() override { return signal_.get(); }
  bool TakeChanges() override {
    ++takes;
    return true;
  }
  void Close() override { closed = true; }

  void Change(std::uint32_t value) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      value_ = value;
    }
    signal_->Set();
  }

  std::int32_t openResult = 0;
  std::atomic<std::uint32_t> threadId{0};
  std::atomic<bool> closed{false};
  std::atomic<int> takes{0};

 private:
  std::mutex mutex_;
  std::uint32_t value_ = 0;
  std::shared_ptr<tarn::os::Event> signal_ = tarn::os::Event::Create(false, false);
};

class NetworkMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VantrelThread::ThreadManager::ResetInstanceForTesting();
    SetConnectivitySourceForTesting(&source);
    SetNetworkMonitorCallbacks({[this](std::int32_t status) {
                                  Record(status == 0 ? "kit 0" : "kit " + std::to_string(status));
                                  return true;
                                },
                                [this] { Record("update"); }});
  }
  void TearDown() override {
    SetNetworkMonitorCallbacks({});
    SetConnectivitySourceForTesting(nullptr);
    VantrelThread::ThreadManager::ResetInstanceForTesting();
  }

  void Record(const std::string& call) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(call);
    changed.notify_all();
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
  EXPECT_TRUE(source.closed);
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

// Builds rtnetlink messages the way the kernel lays them out.
class NetlinkBuffer {
 public:
  void Route(std::uint8_t family, std::uint8_t dstLen, std::uint8_t type, std::uint8_t table = RT_TABLE_MAIN,
             unsigned flags = 0) {
    rtmsg route{};
    route.rtm_family = family;
    route.rtm_dst_len = dstLen;
    route.rtm_type = type;
    route.rtm_table = table;
    route.rtm_flags = flags;
    Append(RTM_NEWROUTE, &route, sizeof(route));
  }
  void Link(unsigned flags, std::uint16_t type = RTM_NEWLINK) {
    ifinfomsg link{};
    link.ifi_flags = flags;
    Append(type, &link, sizeof(link));
  }
  std::uint32_t Fold() const { return ConnectivityFromNetlink(bytes.data(), bytes.size(), 0); }

 private:
  void Append(std::uint16_t type, const void* body, std::size_t size) {
    nlmsghdr header{};
    header.nlmsg_len = NLMSG_LENGTH(size);
    header.nlmsg_type = type;
    std::size_t at = bytes.size();
    bytes.resize(at + NLMSG_SPACE(size));
    std::memcpy(bytes.data() + at, &header, sizeof(header));
    std::memcpy(bytes.data() + at + NLMSG_HDRLEN, body, size);
  }
  std::vector<char> bytes;
};

TEST(ConnectivityFromNetlink, DefaultRoutesAndLinks) {
  struct Case {
    const char* what;
    std::function<void(NetlinkBuffer&)> fill;
    std::uint32_t expected;
  };
  const std::vector<Case> cases = {
      {"IPv4 default route", [](NetlinkBuffer& b) { b.Route(AF_INET, 0, RTN_UNICAST); }, 0x40},
      {"IPv6 default route", [](NetlinkBuffer& b) { b.Route(AF_INET6, 0, RTN_UNICAST); }, 0x400},
      {"subnet route only", [](NetlinkBuffer& b) { b.Route(AF_INET, 24, RTN_UNICAST); }, 0},
      {"unreachable IPv6 default", [](NetlinkBuffer& b) { b.Route(AF_INET6, 0, RTN_UNREACHABLE); }, 0},
      {"local table", [](NetlinkBuffer& b) { b.Route(AF_INET, 0, RTN_UNICAST, RT_TABLE_LOCAL); }, 0},
      {"link down", [](NetlinkBuffer& b) { b.Route(AF_INET, 0, RTN_UNICAST, RT_TABLE_MAIN, RTNH_F_LINKDOWN); }, 0},
      {"loopback up", [](NetlinkBuffer& b) { b.Link(IFF_UP | IFF_RUNNING | IFF_LOOPBACK); }, 0},
      {"link up, no carrier", [](NetlinkBuffer& b) { b.Link(IFF_UP); }, 0},
      {"link running", [](NetlinkBuffer& b) { b.Link(IFF_UP | IFF_RUNNING); }, 0x20},
      {"link gone", [](NetlinkBuffer& b) { b.Link(IFF_UP | IFF_RUNNING, RTM_DELLINK); }, 0},
      {"both families and a link",
       [](NetlinkBuffer& b) {
         b.Link(IFF_UP | IFF_RUNNING);
         b.Route(AF_INET, 16, RTN_UNICAST);
         b.Route(AF_INET6, 0, RTN_UNICAST);
         b.Route(AF_INET, 0, RTN_UNICAST);
       },
       0x460},
  };
  for (const auto& c : cases) {
    NetlinkBuffer buffer;
    c.fill(buffer);
    EXPECT_EQ(buffer.Fold(), c.expected) << c.what;
  }
}

TEST(RtnetlinkConnectivitySource, ReadsTheMachine) {
  RtnetlinkConnectivitySource source;
  const std::int32_t hr = source.Open();
  if (hr != 0) GTEST_SKIP() << "no rtnetlink here: " << hr;
  std::uint32_t connectivity = 0xFFFFFFFF;
  EXPECT_TRUE(source.Current(connectivity));
  EXPECT_EQ(connectivity & ~(kConnectivityInternet | kConnectivityIpv4LocalNetwork), 0u);
  // Drains without blocking, whatever is pending.
  source.TakeChanges();
  source.Close();
}

}  // namespace

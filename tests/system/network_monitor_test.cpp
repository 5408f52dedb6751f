#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "container/NetworkMonitor.h"
#include "platform/log/log_capture.h"
#include "platform/os/message_queue.h"
#include "support/eventually.h"
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
  tarn::test::Eventually([&] { return source.takes != takes; }, std::chrono::seconds(20));
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

// One rtnetlink message laid out as the kernel does, folded alone.
template <class Body>
std::uint32_t Fold(std::uint16_t type, const Body& body) {
  std::vector<char> bytes(NLMSG_SPACE(sizeof(Body)));
  nlmsghdr header{};
  header.nlmsg_len = NLMSG_LENGTH(sizeof(Body));
  header.nlmsg_type = type;
  std::memcpy(bytes.data(), &header, sizeof(header));
  std::memcpy(bytes.data() + NLMSG_HDRLEN, &body, sizeof(Body));
  return ConnectivityFromNetlink(bytes.data(), bytes.size(), 0);
}

TEST(ConnectivityFromNetlink, DefaultRoutesAndLinks) {
  struct RouteCase {
    std::uint8_t family, dstLen, type, table;
    unsigned flags;
    std::uint32_t expected;
  } routes[] = {
      {AF_INET, 0, RTN_UNICAST, RT_TABLE_MAIN, 0, 0x40},
      {AF_INET6, 0, RTN_UNICAST, RT_TABLE_MAIN, 0, 0x400},
      {AF_INET, 24, RTN_UNICAST, RT_TABLE_MAIN, 0, 0},           // a subnet, not the default
      {AF_INET6, 0, RTN_UNREACHABLE, RT_TABLE_MAIN, 0, 0},       // the kernel's placeholder
      {AF_INET, 0, RTN_UNICAST, RT_TABLE_LOCAL, 0, 0},
      {AF_INET, 0, RTN_UNICAST, RT_TABLE_MAIN, RTNH_F_LINKDOWN, 0},
  };
  for (const auto& c : routes) {
    rtmsg route{};
    route.rtm_family = c.family;
    route.rtm_dst_len = c.dstLen;
    route.rtm_type = c.type;
    route.rtm_table = c.table;
    route.rtm_flags = c.flags;
    EXPECT_EQ(Fold(RTM_NEWROUTE, route), c.expected) << int(c.family) << "/" << int(c.dstLen) << " type "
                                                     << int(c.type) << " table " << int(c.table);
  }
  struct LinkCase {
    unsigned flags;
    std::uint32_t expected;
  } links[] = {{IFF_UP | IFF_RUNNING, 0x20}, {IFF_UP, 0}, {IFF_UP | IFF_RUNNING | IFF_LOOPBACK, 0}};
  for (const auto& c : links) {
    ifinfomsg link{};
    link.ifi_flags = c.flags;
    EXPECT_EQ(Fold(RTM_NEWLINK, link), c.expected) << c.flags;
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
  EXPECT_EQ(InternetGetConnectedState(), (connectivity & kConnectivityInternet) != 0);
}

}  // namespace

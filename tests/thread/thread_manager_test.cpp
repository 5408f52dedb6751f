#include "thread/ThreadManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "platform/log/log_capture.h"
#include "platform/os/cancellable_io.h"
#include "platform/os/message_queue.h"
#include "support/eventually.h"

using namespace VantrelThread;
using tarn::log::Level;
using tarn::log::LogCapture;
using namespace std::chrono_literals;

namespace {

// What a test thread reports back; shared so a thread left behind never
// touches a finished test's stack.
struct Probe {
  std::atomic<bool> started{false}, finished{false}, release{false};
  std::atomic<std::uint32_t> result{0};
  std::string name;
  void* arg = nullptr;
};
using ProbePtr = std::shared_ptr<Probe>;

using tarn::test::Eventually;

// Loops until running is cleared; result 2 when no message was waiting then.
ThreadFunction Cooperative(ProbePtr probe) {
  return [probe](void* p) -> std::uint32_t {
    auto* param = static_cast<ThreadParam*>(p);
    probe->name = param->name;
    probe->arg = param->arg;
    probe->started = true;
    while (param->running) std::this_thread::sleep_for(1ms);
    tarn::os::Msg msg;
    probe->result = tarn::os::PeekMessage(&msg, true) ? 1 : 2;
    probe->finished = true;
    return 0;
  };
}

// Ignores running, messages and the exit event until the test releases it.
ThreadFunction Stubborn(ProbePtr probe) {
  return [probe](void*) -> std::uint32_t {
    probe->started = true;
    while (!probe->release) std::this_thread::sleep_for(1ms);
    probe->finished = true;
    return 0;
  };
}

// How long WaitAll took: at least the time-out of the thread it gave up on.
std::chrono::steady_clock::duration TimeWaitAll(ThreadManager& manager) {
  const auto start = std::chrono::steady_clock::now();
  manager.WaitAll();
  return std::chrono::steady_clock::now() - start;
}

TEST(ThreadManagerTest, WaitAllEndsCooperatingAndBlockedThreadsSilentlyThenRefusesCreate) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  ThreadManager manager;
  LogCapture logs;
  auto plain = std::make_shared<Probe>(), queued = std::make_shared<Probe>(), returned = std::make_shared<Probe>();
  auto aborted = std::make_shared<std::atomic<int>>(0);
  auto reader = [aborted, fd = fds[0]](void* p) -> std::uint32_t {
    char buf[8];
    while (static_cast<ThreadParam*>(p)->running) {
      if (tarn::os::CancellableRead(fd, buf, sizeof(buf)) <= 0) break;
    }
    if (tarn::os::GetLastError() == tarn::os::kErrorOperationAborted) ++*aborted;
    return 0;
  };
  int value = 42;
  ASSERT_TRUE(manager.Create(Cooperative(plain), &value, "ConfigManager::WorkerThread", false));
  ASSERT_TRUE(manager.Create(
      [queued](void*) -> std::uint32_t {
        tarn::os::Msg msg;
        while (tarn::os::GetMessage(&msg) > 0) {  // only the quit message can end it
        }
        queued->result = msg.message;
        queued->finished = true;
        return 0;
      },
      nullptr, "EvManager::ReportMsgProc", true));
  returned->release = true;  // so it returns at once, long before WaitAll
  ASSERT_TRUE(manager.Create(Stubborn(returned), nullptr, "svcThreadFun", true));
  ASSERT_TRUE(manager.Create(reader, nullptr, "TarnContainerProcess::Pipe_Listen", false));
  ASSERT_TRUE(manager.Create(reader, nullptr, "Quit::Listen", true));
  ASSERT_EQ(manager.plainThreads.size(), 2u);
  ASSERT_EQ(manager.quitThreads.size(), 3u);
  for (auto* map : {&manager.plainThreads, &manager.quitThreads}) {
    for (auto& [thread, param] : *map) {
      if (!param->name.ends_with("Listen")) continue;  // the readers: wait until they block
      ASSERT_TRUE(Eventually([&] { return tarn::os::IsInCancellableRead(thread.get()); })) << param->name;
    }
  }
  ASSERT_TRUE(Eventually([&] { return plain->started && returned->finished; }));
  EXPECT_EQ(plain->name, "ConfigManager::WorkerThread");
  EXPECT_EQ(plain->arg, &value);
  EXPECT_EQ(tarn::os::WaitForSingle(manager.processExitEvent, 0), tarn::os::kWaitTimeout);

  manager.WaitAll();
  EXPECT_EQ(tarn::os::WaitForSingle(manager.processExitEvent, 0), tarn::os::kWaitObject0);
  EXPECT_TRUE(plain->finished);
  EXPECT_EQ(plain->result.load(), 2u);  // plain threads get no quit message
  EXPECT_TRUE(queued->finished);
  EXPECT_EQ(queued->result.load(), tarn::os::kWmQuit);
  EXPECT_EQ(aborted->load(), 2);  // both readers cancelled, neither given up on
  EXPECT_TRUE(logs.Records().empty());
  // Entries stay until the registry goes; their threads are detached.
  EXPECT_EQ(manager.quitThreads.size(), 3u);
  EXPECT_FALSE(manager.plainThreads.begin()->first->joinable());

  auto late = std::make_shared<Probe>();
  late->release = true;
  EXPECT_FALSE(manager.Create(Stubborn(late), nullptr, "late", true));
  EXPECT_FALSE(manager.Create(Stubborn(late), nullptr, "late", false));
  EXPECT_FALSE(manager.CreateRemovable(Stubborn(late), nullptr, "LoadManger::LoadWorkerThread, late"));
  EXPECT_EQ(manager.plainThreads.size() + manager.quitThreads.size() + manager.removableThreads.size(), 5u);
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(late->started);
  ::close(fds[0]);
  ::close(fds[1]);
}

// A quit thread that ignores everything gets 200 ms, a loader thread a second;
// then each is given up on with a warning, no error, and left to itself.
TEST(ThreadManagerTest, StubbornThreadsAreGivenUpOnAndRemovableOnesLeaveThroughDelOrTheExitEvent) {
  ThreadManager manager;
  LogCapture logs;
  auto monitor = std::make_shared<Probe>(), polite = std::make_shared<Probe>();
  auto leaver = std::make_shared<Probe>(), watcher = std::make_shared<Probe>(), loader = std::make_shared<Probe>();
  auto leaverId = std::make_shared<std::atomic<std::uint32_t>>(0);
  ASSERT_TRUE(manager.Create(Stubborn(monitor), nullptr, "UpgradeManager::MonitorThread", true));
  ASSERT_TRUE(manager.Create(Cooperative(polite), nullptr, "UpgradeManager::WorkerThread", false));
  ASSERT_TRUE(manager.CreateRemovable(
      [leaver, leaverId, mgr = &manager](void*) -> std::uint32_t {
        while (!leaver->release) std::this_thread::sleep_for(1ms);
        *leaverId = tarn::os::GetCurrentThreadId();
        leaver->result = mgr->del(*leaverId) ? 1 : 2;
        leaver->finished = true;
        return 0;
      },
      nullptr, "LoadManger::LoadWorkerThread, kitA"));
  ASSERT_TRUE(manager.CreateRemovable(
      [watcher, exitEvent = manager.processExitEvent](void* p) -> std::uint32_t {
        tarn::os::WaitForSingle(exitEvent, tarn::os::kInfinite);
        watcher->result = static_cast<ThreadParam*>(p)->running ? 1 : 2;
        watcher->finished = true;
        return 0;
      },
      nullptr, "LoadManger::LoadWorkerThread, kitB"));
  ASSERT_TRUE(manager.CreateRemovable(Stubborn(loader), nullptr, "LoadManger::LoadWorkerThread, kitC"));
  // Ids that are not in the map: false and nothing logged.
  EXPECT_FALSE(manager.del(0));
  EXPECT_FALSE(manager.del(tarn::os::GetCurrentThreadId()));
  EXPECT_TRUE(logs.Records().empty());

  leaver->release = true;
  ASSERT_TRUE(Eventually([&] { return leaver->finished && monitor->started; }));
  EXPECT_EQ(leaver->result.load(), 1u);
  {
    std::lock_guard<std::mutex> lock(manager.mutex);
    EXPECT_EQ(manager.removableThreads.size(), 2u);
  }
  EXPECT_TRUE(logs.Has(Level::Info, "del delThreadId = " + std::to_string(*leaverId) + "(ThreadManager::del)"));

  EXPECT_GE(TimeWaitAll(manager), 1200ms);
  EXPECT_FALSE(monitor->finished);
  EXPECT_TRUE(polite->finished);
  EXPECT_TRUE(watcher->finished);
  EXPECT_EQ(watcher->result.load(), 1u);  // running was left alone
  for (const char* name : {"UpgradeManager::MonitorThread", "LoadManger::LoadWorkerThread, kitC"}) {
    EXPECT_TRUE(logs.Has(Level::Warn,
                         std::string("ExitThread failed! thread entry function: ") + name + "(ThreadManager::WaitAll)"));
  }
  EXPECT_EQ(logs.Records().size(), 3u);
  EXPECT_FALSE(manager.quitThreads.begin()->first->joinable());

  monitor->release = loader->release = true;  // left to themselves, they end when they like
  EXPECT_TRUE(Eventually([&] { return monitor->finished && loader->finished; }));
}

}  // namespace

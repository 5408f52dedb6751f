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

using namespace VantrelThread;
using tarn::log::Level;
using tarn::log::LogCapture;
using namespace std::chrono_literals;

namespace {

// What a test thread reports back; shared so a thread left behind never
// touches a finished test's stack.
struct Probe {
  std::atomic<bool> started{false};
  std::atomic<bool> finished{false};
  std::atomic<bool> release{false};
  std::atomic<std::uint32_t> threadId{0};
  std::atomic<std::uint32_t> result{0};
  std::string name;
  void* arg = nullptr;
};

bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 500; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

std::chrono::milliseconds Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start);
}

TEST(ThreadManagerTest, ThreadGetsItsParamAndLoopsUntilRunningIsCleared) {
  ThreadManager manager;
  LogCapture logs;
  auto probe = std::make_shared<Probe>();
  int value = 42;
  ASSERT_TRUE(manager.Create(
      [probe](void* p) -> std::uint32_t {
        auto* param = static_cast<ThreadParam*>(p);
        probe->name = param->name;
        probe->arg = param->arg;
        probe->started = true;
        while (param->running) std::this_thread::sleep_for(1ms);
        probe->finished = true;
        return 7;
      },
      &value, "Worker::Loop", false));
  ASSERT_EQ(manager.plainThreads.size(), 1u);
  EXPECT_TRUE(manager.quitThreads.empty());
  ASSERT_TRUE(Eventually([&] { return probe->started.load(); }));
  EXPECT_EQ(probe->name, "Worker::Loop");
  EXPECT_EQ(probe->arg, &value);
  EXPECT_EQ(tarn::os::WaitForSingle(manager.processExitEvent, 0), tarn::os::kWaitTimeout);

  manager.WaitAll();
  EXPECT_TRUE(probe->finished);
  EXPECT_EQ(tarn::os::WaitForSingle(manager.processExitEvent, 0), tarn::os::kWaitObject0);
  EXPECT_FALSE(logs.Contains("ExitThread failed!"));
  EXPECT_FALSE(logs.Contains("CancelSynchronousIo: "));
  // Entries stay until the registry goes; their threads are detached.
  ASSERT_EQ(manager.plainThreads.size(), 1u);
  EXPECT_FALSE(manager.plainThreads.begin()->first->joinable());
}

TEST(ThreadManagerTest, CreateAfterWaitAllIsRefusedAndTheFunctionNeverRuns) {
  ThreadManager manager;
  manager.WaitAll();  // empty maps: only the event
  EXPECT_EQ(tarn::os::WaitForSingle(manager.processExitEvent, 0), tarn::os::kWaitObject0);
  auto ran = std::make_shared<std::atomic<bool>>(false);
  auto fn = [ran](void*) -> std::uint32_t {
    *ran = true;
    return 0;
  };
  EXPECT_FALSE(manager.Create(fn, nullptr, "late", true));
  EXPECT_FALSE(manager.Create(fn, nullptr, "late", false));
  EXPECT_FALSE(manager.CreateRemovable(fn, nullptr, "LoadManger::LoadWorkerThread, late"));
  EXPECT_TRUE(manager.plainThreads.empty());
  EXPECT_TRUE(manager.quitThreads.empty());
  EXPECT_TRUE(manager.removableThreads.empty());
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(*ran);
}

TEST(ThreadManagerTest, ThreadBlockedInACancellableReadEndsWithoutBeingKilled) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  ThreadManager manager;
  LogCapture logs;
  auto probe = std::make_shared<Probe>();
  auto reader = [probe, fd = fds[0]](void* p) -> std::uint32_t {
    auto* param = static_cast<ThreadParam*>(p);
    char buf[8];
    while (param->running) {
      if (tarn::os::CancellableRead(fd, buf, sizeof(buf)) <= 0) break;
    }
    probe->result = tarn::os::GetLastError();
    probe->finished = true;
    return 0;
  };
  ASSERT_TRUE(manager.Create(reader, nullptr, "TarnContainerProcess::Pipe_Listen", false));
  ASSERT_TRUE(manager.Create(reader, nullptr, "Quit::Reader", true));
  for (auto* map : {&manager.plainThreads, &manager.quitThreads}) {
    const ThreadHandle& thread = map->begin()->first;
    ASSERT_TRUE(Eventually([&] { return tarn::os::IsInCancellableRead(thread.get()); }));
  }

  manager.WaitAll();
  EXPECT_TRUE(probe->finished);
  EXPECT_EQ(probe->result.load(), tarn::os::kErrorOperationAborted);
  EXPECT_FALSE(logs.Contains("ExitThread failed!"));
  EXPECT_FALSE(logs.Contains("TerminateThread"));
  EXPECT_FALSE(logs.Contains("WaitForSingleObject fail"));
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST(ThreadManagerTest, QuitThreadWaitingOnItsQueueEndsOnTheQuitMessage) {
  ThreadManager manager;
  LogCapture logs;
  auto probe = std::make_shared<Probe>();
  ASSERT_TRUE(manager.Create(
      [probe](void*) -> std::uint32_t {
        probe->threadId = tarn::os::GetCurrentThreadId();
        tarn::os::Msg msg;
        // Ignores running and the exit event: only the message can end it.
        while (tarn::os::GetMessage(&msg) > 0) {
        }
        probe->result = msg.message;
        probe->finished = true;
        return 0;
      },
      nullptr, "EvManager::ReportMsgProc", true));
  ASSERT_EQ(manager.quitThreads.size(), 1u);
  ASSERT_TRUE(Eventually([&] { return probe->threadId != 0; }));
  EXPECT_EQ(manager.quitThreads.begin()->first->Id(), probe->threadId.load());

  manager.WaitAll();
  EXPECT_TRUE(probe->finished);
  EXPECT_EQ(probe->result.load(), tarn::os::kWmQuit);
  EXPECT_FALSE(logs.Contains("ExitThread failed!"));
}

TEST(ThreadManagerTest, PlainThreadsGetNoQuitMessage) {
  ThreadManager manager;
  auto probe = std::make_shared<Probe>();
  ASSERT_TRUE(manager.Create(
      [probe](void* p) -> std::uint32_t {
        auto* param = static_cast<ThreadParam*>(p);
        tarn::os::CurrentMessageQueue();
        probe->started = true;
        while (param->running) std::this_thread::sleep_for(1ms);
        tarn::os::Msg msg;
        probe->result = tarn::os::PeekMessage(&msg, true) ? 1 : 2;
        probe->finished = true;
        return 0;
      },
      nullptr, "ConfigManager::WorkerThread", false));
  ASSERT_TRUE(Eventually([&] { return probe->started.load(); }));
  manager.WaitAll();
  ASSERT_TRUE(probe->finished);
  EXPECT_EQ(probe->result.load(), 2u);
}

TEST(ThreadManagerTest, ThreadIgnoringEverythingIsReportedAndWaitAllStillReturns) {
  ThreadManager manager;
  LogCapture logs;
  auto stubborn = std::make_shared<Probe>();
  auto polite = std::make_shared<Probe>();
  ASSERT_TRUE(manager.Create(
      [stubborn](void*) -> std::uint32_t {
        stubborn->started = true;
        while (!stubborn->release) std::this_thread::sleep_for(1ms);
        stubborn->finished = true;
        return 0;
      },
      nullptr, "UpgradeManager::MonitorThread", true));
  ASSERT_TRUE(manager.Create(
      [polite](void* p) -> std::uint32_t {
        auto* param = static_cast<ThreadParam*>(p);
        while (param->running) std::this_thread::sleep_for(1ms);
        polite->finished = true;
        return 0;
      },
      nullptr, "UpgradeManager::WorkerThread", false));
  ASSERT_TRUE(Eventually([&] { return stubborn->started.load(); }));

  auto start = std::chrono::steady_clock::now();
  manager.WaitAll();
  auto took = Since(start);
  EXPECT_GE(took, 200ms);   // it was given its full time-out
  EXPECT_LT(took, 10000ms);  // and then given up on
  EXPECT_FALSE(stubborn->finished);
  EXPECT_TRUE(polite->finished);
  EXPECT_EQ(logs.Count(Level::Warn,
                       "ExitThread failed! thread entry function: "
                       "UpgradeManager::MonitorThread(ThreadManager::WaitAll)"),
            1u);
  EXPECT_EQ(logs.CountContaining("ExitThread failed!"), 1u);
  EXPECT_FALSE(logs.Contains("TerminateThread fail error = "));
  EXPECT_FALSE(manager.quitThreads.begin()->first->joinable());

  stubborn->release = true;  // left to itself, it ends when it likes
  EXPECT_TRUE(Eventually([&] { return stubborn->finished.load(); }));
}

TEST(ThreadManagerTest, ThreadEndHandle) {
  ThreadManager manager;
  LogCapture logs;
  EXPECT_TRUE(manager.ThreadEndHandle(nullptr, 0));

  auto quick = tarn::os::Thread::Start([] {});
  EXPECT_TRUE(manager.ThreadEndHandle(quick.get(), 5000));
  quick->detach();

  auto release = std::make_shared<std::atomic<bool>>(false);
  auto slow = tarn::os::Thread::Start([release] {
    while (!*release) std::this_thread::sleep_for(1ms);
  });
  EXPECT_FALSE(manager.ThreadEndHandle(slow.get(), 10));
  EXPECT_TRUE(logs.Records().empty());
  // Given up on: its handle now reads as ended.
  EXPECT_EQ(tarn::os::WaitForSingle(slow.get(), 0), tarn::os::kWaitObject0);
  slow->detach();
  *release = true;
}

TEST(ThreadManagerTest, ReturnedThreadIsDetachedSilently) {
  ThreadManager manager;
  LogCapture logs;
  auto probe = std::make_shared<Probe>();
  ASSERT_TRUE(manager.Create(
      [probe](void*) -> std::uint32_t {
        probe->finished = true;
        return 0;
      },
      nullptr, "svcThreadFun", true));
  ASSERT_TRUE(Eventually([&] { return probe->finished.load(); }));
  EXPECT_EQ(manager.quitThreads.size(), 1u);  // stays in its map
  manager.WaitAll();
  EXPECT_TRUE(logs.Records().empty());
}

TEST(ThreadManagerTest, DelRemovesTheCallingRemovableThread) {
  ThreadManager manager;
  LogCapture logs;
  auto probe = std::make_shared<Probe>();
  auto* mgr = &manager;
  ASSERT_TRUE(manager.CreateRemovable(
      [probe, mgr](void*) -> std::uint32_t {
        while (!probe->release) std::this_thread::sleep_for(1ms);
        std::uint32_t self = tarn::os::GetCurrentThreadId();
        probe->threadId = self;
        probe->result = mgr->del(self) ? 1 : 2;
        probe->finished = true;
        return 0;
      },
      nullptr, "LoadManger::LoadWorkerThread, kitA"));
  EXPECT_EQ(manager.removableThreads.size(), 1u);

  // An id that is not in the map: false and nothing logged.
  EXPECT_FALSE(manager.del(0));
  EXPECT_FALSE(manager.del(tarn::os::GetCurrentThreadId()));
  EXPECT_TRUE(logs.Records().empty());

  probe->release = true;
  ASSERT_TRUE(Eventually([&] { return probe->finished.load(); }));
  EXPECT_EQ(probe->result.load(), 1u);
  {
    std::lock_guard<std::mutex> lock(manager.mutex);
    EXPECT_TRUE(manager.removableThreads.empty());
  }
  EXPECT_TRUE(logs.Has(Level::Info, "del delThreadId = " + std::to_string(probe->threadId) +
                                        "(ThreadManager::del)"));
  manager.WaitAll();
  EXPECT_FALSE(logs.Contains("ExitThread failed!"));
}

TEST(ThreadManagerTest, RemovableThreadsGetOnlyTheExitEventAndASecond) {
  ThreadManager manager;
  LogCapture logs;
  auto watcher = std::make_shared<Probe>();
  auto stubborn = std::make_shared<Probe>();
  auto* exitEvent = manager.processExitEvent.get();
  ASSERT_TRUE(manager.CreateRemovable(
      [watcher, exitEvent](void* p) -> std::uint32_t {
        auto* param = static_cast<ThreadParam*>(p);
        // Waits on the exit event and then checks it was not told otherwise.
        tarn::os::WaitForSingle(exitEvent, tarn::os::kInfinite);
        watcher->result = param->running ? 1 : 2;
        watcher->finished = true;
        return 0;
      },
      nullptr, "LoadManger::LoadWorkerThread, kitA"));
  ASSERT_TRUE(manager.CreateRemovable(
      [stubborn](void*) -> std::uint32_t {
        while (!stubborn->release) std::this_thread::sleep_for(1ms);
        stubborn->finished = true;
        return 0;
      },
      nullptr, "LoadManger::LoadWorkerThread, kitB"));

  auto start = std::chrono::steady_clock::now();
  manager.WaitAll();
  auto took = Since(start);
  EXPECT_GE(took, 1000ms);
  EXPECT_LT(took, 15000ms);
  EXPECT_TRUE(watcher->finished);
  EXPECT_EQ(watcher->result.load(), 1u);  // running was left alone
  EXPECT_TRUE(logs.Has(Level::Warn,
                       "ExitThread failed! thread entry function: "
                       "LoadManger::LoadWorkerThread, kitB(ThreadManager::WaitAll)"));
  EXPECT_EQ(logs.CountContaining("ExitThread failed!"), 1u);
  stubborn->release = true;
  EXPECT_TRUE(Eventually([&] { return stubborn->finished.load(); }));
}

TEST(ThreadManagerTest, InstanceIsOneObjectAndCanBeRenewedForTests) {
  ThreadManager::ResetInstanceForTesting();
  ThreadManager& first = ThreadManager::Instance();
  EXPECT_EQ(&first, &ThreadManager::Instance());
  first.WaitAll();
  EXPECT_FALSE(ThreadManager::Instance().Create([](void*) -> std::uint32_t { return 0; }, nullptr,
                                                "x", true));
  ThreadManager::ResetInstanceForTesting();
  ThreadManager& fresh = ThreadManager::Instance();
  EXPECT_EQ(tarn::os::WaitForSingle(fresh.processExitEvent, 0), tarn::os::kWaitTimeout);
  EXPECT_TRUE(fresh.Create([](void*) -> std::uint32_t { return 0; }, nullptr, "x", true));
  fresh.WaitAll();
  // Its threads are detached now: a second WaitAll finds them not joinable.
  EXPECT_THROW(fresh.WaitAll(), std::system_error);
}

}  // namespace

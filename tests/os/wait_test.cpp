#include "platform/os/event.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/os/cancellable_io.h"
#include "platform/os/message_queue.h"
#include "platform/os/thread.h"
#include "support/eventually.h"

using namespace tarn::os;
using namespace std::chrono_literals;

namespace {

void Drain() {
  Msg msg;
  while (PeekMessage(&msg, true)) {
  }
}

using tarn::test::Eventually;

TEST(EventTest, ManualStaysSetUntilResetAutoReleasesOneWaitPerSignal) {
  auto manual = Event::Create(true, false);
  ASSERT_TRUE(manual);
  EXPECT_EQ(WaitForSingle(manual, 30), kWaitTimeout);
  ASSERT_TRUE(manual->Set());
  ASSERT_TRUE(manual->Set());
  EXPECT_EQ(WaitForSingle(manual, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingle(manual, 0), kWaitObject0);
  ASSERT_TRUE(manual->Reset());
  EXPECT_EQ(WaitForSingle(manual, 0), kWaitTimeout);
  EXPECT_EQ(WaitForSingle(Event::Create(true, true), 0), kWaitObject0);

  auto autoReset = Event::Create(false, true);
  autoReset->Set();  // setting a set event changes nothing
  EXPECT_EQ(WaitForSingle(autoReset, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingle(autoReset, 0), kWaitTimeout);
}

TEST(EventTest, AutoResetWakesExactlyOneOfTwoWaiters) {
  auto event = Event::Create(false, false);
  std::atomic<int> woken{0};
  auto waiter = [&] {
    if (WaitForSingle(event, 1000) == kWaitObject0) ++woken;
  };
  std::thread a(waiter), b(waiter);
  std::this_thread::sleep_for(50ms);
  event->Set();
  a.join();
  b.join();
  EXPECT_EQ(woken.load(), 1);
}

TEST(EventTest, WaitForAnyGivesTheLowestSignalledIndexOfAtMostSixtyFour) {
  std::vector<std::shared_ptr<Event>> events;
  std::vector<Waitable*> all;
  for (int i = 0; i < 65; ++i) all.push_back(events.emplace_back(Event::Create(i != 3, false)).get());
  std::vector<Waitable*> five(all.begin(), all.begin() + 5), first64(all.begin(), all.begin() + 64);
  EXPECT_EQ(WaitForAny(five, 0), kWaitTimeout);
  events[4]->Set();
  events[3]->Set();
  EXPECT_EQ(WaitForAny(five, 0), kWaitObject0 + 3);
  // The auto-reset one was consumed; the manual one stays.
  EXPECT_EQ(WaitForAny(five, 0), kWaitObject0 + 4);
  EXPECT_EQ(WaitForAny(five, 0), kWaitObject0 + 4);
  events[4]->Reset();
  events[63]->Set();
  EXPECT_EQ(WaitForAny(first64, 0), kWaitObject0 + 63);

  SetLastError(0);
  EXPECT_EQ(WaitForAny(all, kInfinite), kWaitFailed);
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EINVAL));
  EXPECT_EQ(WaitForAny({}, 0), kWaitFailed);
  EXPECT_EQ(WaitForAny({events[0].get(), nullptr}, kInfinite), kWaitFailed);
}

TEST(EventTest, FdSignalsOnDataAndHangUpWithoutBeingConsumedAndMixesWithEvents) {
  int data[2], exitPipe[2];
  ASSERT_EQ(::pipe(data), 0);
  ASSERT_EQ(::pipe(exitPipe), 0);
  EXPECT_EQ(WaitForFd(data[0], 20), kWaitTimeout);
  ASSERT_EQ(::write(data[1], "x", 1), 1);
  EXPECT_EQ(WaitForFd(data[0], 0), kWaitObject0);
  EXPECT_EQ(WaitForFd(data[0], 0), kWaitObject0);

  auto event = Event::Create(true, false);
  FdHandle fd(data[0]);
  EXPECT_EQ(WaitForAny({event.get(), &fd}, 1000), kWaitObject0 + 1);
  event->Set();
  EXPECT_EQ(WaitForAny({event.get(), &fd}, 1000), kWaitObject0);

  std::thread closer([&] {
    std::this_thread::sleep_for(30ms);
    ::close(exitPipe[1]);  // the writer went away
  });
  EXPECT_EQ(WaitForFd(exitPipe[0], 5000), kWaitObject0);
  closer.join();
  for (int f : {data[0], data[1], exitPipe[0]}) ::close(f);
  for (int invalid : {0, exitPipe[0]}) {  // the null handle and a closed one
    SetLastError(0);
    EXPECT_EQ(WaitForFd(invalid, kInfinite), kWaitFailed);
    EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EBADF));
  }
  SetLastError(0);
  EXPECT_EQ(WaitForSingle(static_cast<Waitable*>(nullptr), kInfinite), kWaitFailed);
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EBADF));
}

TEST(MessageQueueTest, ThreadGetsMessagesPostedByIdInOrderUntilQuit) {
  std::vector<std::tuple<std::uint32_t, std::uintptr_t, std::intptr_t>> seen;
  auto thread = Thread::Start([&] {
    Msg msg;
    while (GetMessage(&msg) > 0) seen.emplace_back(msg.message, msg.wParam, msg.lParam);
  });
  ASSERT_TRUE(thread);
  // The queue is registered once Start returned.
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmUser + 1, 7, -3));
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmUser + 2, 0, 0));
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmQuit, 0, 0));
  ASSERT_EQ(WaitForSingle(thread.get(), 5000), kWaitObject0);
  EXPECT_EQ(seen, (decltype(seen){{kWmUser + 1, 7, -3}, {kWmUser + 2, 0, 0}}));
  EXPECT_FALSE(PostThreadMessage(thread->Id(), kWmUser, 0, 0));  // an ended thread's queue is gone
  thread->detach();
  SetLastError(0);
  EXPECT_FALSE(PostThreadMessage(0, kWmQuit, 0, 0));
  EXPECT_EQ(GetLastError(), kErrorInvalidThreadId);
}

TEST(MessageQueueTest, MsgWaitReportsEventsFirstThenMessagesAlsoFromOtherThreads) {
  auto event = Event::Create(true, false);
  std::vector<Waitable*> handles{event.get()};
  Drain();
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitTimeout);
  PostThreadMessage(GetCurrentThreadId(), kWmUser, 0, 0);
  Msg msg;
  ASSERT_TRUE(PeekMessage(&msg, false));  // looks without taking
  EXPECT_EQ(msg.message, kWmUser);
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitObject0 + 1);
  event->Set();
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitObject0);
  event->Reset();
  Drain();
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitTimeout);

  std::uint32_t self = GetCurrentThreadId();
  std::thread poster([&] {
    std::this_thread::sleep_for(30ms);
    PostThreadMessage(self, kWmUser + 5, 0, 0);
  });
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 5000), kWaitObject0 + 1);
  poster.join();
  ASSERT_EQ(GetMessage(&msg), 1);
  EXPECT_EQ(msg.message, kWmUser + 5);

  // The queue takes the last of the 64 slots.
  std::vector<std::shared_ptr<Event>> many;
  std::vector<Waitable*> tooMany;
  for (int i = 0; i < 64; ++i) tooMany.push_back(many.emplace_back(Event::Create(true, true)).get());
  EXPECT_EQ(MsgWaitForMultipleObjects(tooMany, 0), kWaitFailed);
}

TEST(MessageQueueTest, TimerPostsTimerMessagesAndRunsItsProcOnDispatch) {
  std::vector<std::uintptr_t> fired;
  std::uintptr_t id = SetTimer(0, 20, [&](std::uintptr_t timerId) { fired.push_back(timerId); });
  ASSERT_NE(id, 0u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(MsgWaitForMultipleObjects({}, 5000), kWaitObject0);
    Msg msg;
    ASSERT_EQ(GetMessage(&msg), 1);
    EXPECT_EQ(msg.message, kWmTimer);
    EXPECT_EQ(msg.wParam, id);
    EXPECT_TRUE(DispatchMessage(msg));
  }
  EXPECT_EQ(fired, (std::vector<std::uintptr_t>{id, id, id}));

  // Expiries while nobody reads collapse into one pending timer message.
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(CurrentMessageQueue().Size(), 1u);

  ASSERT_TRUE(KillTimer(id));
  Drain();
  EXPECT_EQ(MsgWaitForMultipleObjects({}, 60), kWaitTimeout);
  EXPECT_FALSE(KillTimer(id));
  EXPECT_FALSE(DispatchMessage(Msg{kWmTimer, id, 0}));
}

// A cancel that finds no read pending is refused and doesn't end the next read;
// a cancel of a blocked read ends it as aborted.
TEST(CancellableReadTest, CancelEndsOnlyTheReadPendingNow) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::atomic<bool> go{false};
  std::atomic<ssize_t> first{-2}, second{-2};
  std::atomic<std::uint32_t> error{0};
  auto reader = Thread::Start([&] {
    while (!go) std::this_thread::sleep_for(1ms);
    char buf[16];
    first = CancellableRead(fds[0], buf, sizeof(buf));
    second = CancellableRead(fds[0], buf, sizeof(buf));
    error = GetLastError();
  });
  SetLastError(0);
  EXPECT_FALSE(CancelSynchronousIo(reader.get()));
  EXPECT_EQ(GetLastError(), kErrorNotFound);
  go = true;
  const auto inRead = [&] { return IsInCancellableRead(reader.get()); };
  ASSERT_TRUE(Eventually(inRead));
  ASSERT_EQ(::write(fds[1], "abc", 3), 3);
  ASSERT_TRUE(Eventually([&] { return first != -2 && inRead(); }));
  EXPECT_EQ(first.load(), 3);
  ASSERT_TRUE(CancelSynchronousIo(reader.get()));
  ASSERT_EQ(WaitForSingle(reader.get(), 5000), kWaitObject0);
  EXPECT_EQ(second.load(), -1);
  EXPECT_EQ(error.load(), kErrorOperationAborted);
  reader->detach();
  EXPECT_FALSE(CancelSynchronousIo(nullptr));

  char buf[16];
  ::close(fds[1]);
  EXPECT_EQ(CancellableRead(fds[0], buf, sizeof(buf)), 0);  // end of file
  ::close(fds[0]);
  EXPECT_EQ(CancellableRead(-1, buf, sizeof(buf)), -1);
}

}  // namespace

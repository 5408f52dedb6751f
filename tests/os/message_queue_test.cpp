#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/os/message_queue.h"
#include "platform/os/thread.h"

using namespace tarn::os;

namespace {

TEST(MessageQueueTest, PostedMessagesArriveInOrderAndQuitGivesZero) {
  std::uint32_t id = GetCurrentThreadId();
  CurrentMessageQueue();  // a thread has a queue once it used one
  ASSERT_TRUE(PostThreadMessage(id, kWmUser + 1, 7, -3));
  ASSERT_TRUE(PostThreadMessage(id, kWmQuit, 0, 0));

  Msg msg;
  ASSERT_TRUE(PeekMessage(&msg, false));
  EXPECT_EQ(msg.message, kWmUser + 1);
  ASSERT_EQ(GetMessage(&msg), 1);
  EXPECT_EQ(msg.message, kWmUser + 1);
  EXPECT_EQ(msg.wParam, 7u);
  EXPECT_EQ(msg.lParam, -3);
  EXPECT_EQ(GetMessage(&msg), 0);
  EXPECT_EQ(msg.message, kWmQuit);
  EXPECT_FALSE(PeekMessage(&msg, true));
}

TEST(MessageQueueTest, PostToAnUnknownThreadFails) {
  SetLastError(0);
  EXPECT_FALSE(PostThreadMessage(0, kWmQuit, 0, 0));
  EXPECT_EQ(GetLastError(), kErrorInvalidThreadId);
}

TEST(MessageQueueTest, ThreadGetsMessagesPostedByIdUntilQuit) {
  std::vector<std::uint32_t> seen;
  auto thread = Thread::Start([&] {
    Msg msg;
    while (GetMessage(&msg) > 0) seen.push_back(msg.message);
  });
  ASSERT_TRUE(thread);
  // The queue is registered once Start returned.
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmUser, 0, 0));
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmUser + 2, 0, 0));
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmQuit, 0, 0));
  ASSERT_EQ(WaitForSingle(thread.get(), 5000), kWaitObject0);
  EXPECT_EQ(seen, (std::vector<std::uint32_t>{kWmUser, kWmUser + 2}));
  // An ended thread's queue is gone.
  EXPECT_FALSE(PostThreadMessage(thread->Id(), kWmUser, 0, 0));
  thread->detach();
}

TEST(MessageQueueTest, MsgWaitReportsEventsFirstThenMessages) {
  auto event = Event::Create(true, false);
  std::vector<Waitable*> handles{event.get()};
  Msg msg;
  while (PeekMessage(&msg, true)) {
  }
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitTimeout);
  PostThreadMessage(GetCurrentThreadId(), kWmUser, 0, 0);
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitObject0 + 1);
  event->Set();
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitObject0);
  event->Reset();
  ASSERT_TRUE(PeekMessage(&msg, true));
  EXPECT_EQ(MsgWaitForMultipleObjects(handles, 0), kWaitTimeout);

  std::vector<std::shared_ptr<Event>> many;
  std::vector<Waitable*> tooMany;
  for (int i = 0; i < 64; ++i) {
    many.push_back(Event::Create(true, true));
    tooMany.push_back(many.back().get());
  }
  EXPECT_EQ(MsgWaitForMultipleObjects(tooMany, 0), kWaitFailed);
}

TEST(MessageQueueTest, MsgWaitWakesOnAMessageFromAnotherThread) {
  auto event = Event::Create(true, false);
  std::uint32_t self = GetCurrentThreadId();
  CurrentMessageQueue();
  std::thread poster([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    PostThreadMessage(self, kWmUser + 5, 0, 0);
  });
  EXPECT_EQ(MsgWaitForMultipleObjects({event.get()}, 5000), kWaitObject0 + 1);
  poster.join();
  Msg msg;
  ASSERT_EQ(GetMessage(&msg), 1);
  EXPECT_EQ(msg.message, kWmUser + 5);
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
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(CurrentMessageQueue().Size(), 1u);

  ASSERT_TRUE(KillTimer(id));
  Msg msg;
  while (PeekMessage(&msg, true)) {
  }
  EXPECT_EQ(MsgWaitForMultipleObjects({}, 60), kWaitTimeout);
  EXPECT_FALSE(KillTimer(id));
  EXPECT_FALSE(DispatchMessage(Msg{kWmTimer, id, 0}));
}

}  // namespace

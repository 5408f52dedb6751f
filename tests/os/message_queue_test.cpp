#include "platform/os/message_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/os/thread.h"

using namespace tarn::os;
using namespace std::chrono_literals;

namespace {

void Drain() {
  Msg msg;
  while (PeekMessage(&msg, true)) {
  }
}

TEST(MessageQueueTest, ThreadGetsMessagesPostedByIdInOrderUntilQuit) {
  std::vector<Msg> seen;
  auto thread = Thread::Start([&] {
    Msg msg;
    while (GetMessage(&msg) > 0) seen.push_back(msg);
  });
  ASSERT_TRUE(thread);
  // The queue is registered once Start returned.
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmUser + 1, 7, -3));
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmUser + 2, 0, 0));
  ASSERT_TRUE(PostThreadMessage(thread->Id(), kWmQuit, 0, 0));
  ASSERT_EQ(WaitForSingle(thread.get(), 5000), kWaitObject0);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].message, kWmUser + 1);
  EXPECT_EQ(seen[0].wParam, 7u);
  EXPECT_EQ(seen[0].lParam, -3);
  EXPECT_EQ(seen[1].message, kWmUser + 2);
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

}  // namespace

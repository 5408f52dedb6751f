#include "platform/os/event.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace tarn::os;
using namespace std::chrono_literals;

namespace {

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

}  // namespace

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "platform/os/event.h"

using namespace tarn::os;

namespace {

class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe(fds_), 0); }
  ~Pipe() {
    CloseRead();
    CloseWrite();
  }
  int read() const { return fds_[0]; }
  void CloseRead() {
    if (fds_[0] >= 0) ::close(fds_[0]);
    fds_[0] = -1;
  }
  void CloseWrite() {
    if (fds_[1] >= 0) ::close(fds_[1]);
    fds_[1] = -1;
  }
  void Write(char c) { ASSERT_EQ(::write(fds_[1], &c, 1), 1); }

 private:
  int fds_[2] = {-1, -1};
};

TEST(EventTest, ManualResetStaysSignalledUntilReset) {
  auto event = Event::Create(true, false);
  ASSERT_TRUE(event);
  EXPECT_EQ(WaitForSingle(event, 0), kWaitTimeout);
  ASSERT_TRUE(event->Set());
  ASSERT_TRUE(event->Set());
  EXPECT_EQ(WaitForSingle(event, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingle(event, 0), kWaitObject0);
  ASSERT_TRUE(event->Reset());
  EXPECT_EQ(WaitForSingle(event, 0), kWaitTimeout);
  EXPECT_EQ(WaitForSingle(event, 30), kWaitTimeout);

  auto initiallySet = Event::Create(true, true);
  EXPECT_EQ(WaitForSingle(initiallySet, 0), kWaitObject0);
}

TEST(EventTest, AutoResetReleasesOneWaitPerSignal) {
  auto event = Event::Create(false, false);
  ASSERT_TRUE(event);
  event->Set();
  event->Set();  // setting a set event changes nothing
  EXPECT_EQ(WaitForSingle(event, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingle(event, 0), kWaitTimeout);

  auto initiallySet = Event::Create(false, true);
  EXPECT_EQ(WaitForSingle(initiallySet, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingle(initiallySet, 0), kWaitTimeout);
}

TEST(EventTest, AutoResetWakesExactlyOneOfTwoWaiters) {
  auto event = Event::Create(false, false);
  std::atomic<int> woken{0};
  auto waiter = [&] {
    if (WaitForSingle(event, 1000) == kWaitObject0) ++woken;
  };
  std::thread a(waiter), b(waiter);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  event->Set();
  a.join();
  b.join();
  EXPECT_EQ(woken.load(), 1);
}

TEST(EventTest, WaitWakesWhenAnotherThreadSets) {
  auto event = Event::Create(true, false);
  std::thread setter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    event->Set();
  });
  EXPECT_EQ(WaitForSingle(event, kInfinite), kWaitObject0);
  setter.join();
}

TEST(EventTest, WaitForAnyGivesTheLowestSignalledIndex) {
  std::vector<std::shared_ptr<Event>> events;
  std::vector<Waitable*> handles;
  for (int i = 0; i < 5; ++i) {
    events.push_back(Event::Create(i != 3, false));
    handles.push_back(events.back().get());
  }
  EXPECT_EQ(WaitForAny(handles, 0), kWaitTimeout);
  events[4]->Set();
  events[3]->Set();
  EXPECT_EQ(WaitForAny(handles, 0), kWaitObject0 + 3);
  // The auto-reset one was consumed; the manual one stays.
  EXPECT_EQ(WaitForAny(handles, 0), kWaitObject0 + 4);
  EXPECT_EQ(WaitForAny(handles, 0), kWaitObject0 + 4);
}

TEST(EventTest, SixtyFourHandlesWaitAndSixtyFiveFailAtOnce) {
  std::vector<std::shared_ptr<Event>> events;
  std::vector<Waitable*> handles;
  for (int i = 0; i < 65; ++i) {
    events.push_back(Event::Create(true, false));
    handles.push_back(events.back().get());
  }
  events[63]->Set();
  std::vector<Waitable*> first64(handles.begin(), handles.begin() + 64);
  EXPECT_EQ(WaitForAny(first64, 0), kWaitObject0 + 63);

  SetLastError(0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForAny(handles, kInfinite), kWaitFailed);
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EINVAL));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

  EXPECT_EQ(WaitForAny({}, 0), kWaitFailed);
}

TEST(EventTest, NullOrInvalidHandlesFailAtOnceWithTheErrno) {
  SetLastError(0);
  EXPECT_EQ(WaitForSingle(static_cast<Waitable*>(nullptr), kInfinite), kWaitFailed);
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EBADF));

  auto event = Event::Create(true, false);
  std::vector<Waitable*> withNull{event.get(), nullptr};
  EXPECT_EQ(WaitForAny(withNull, kInfinite), kWaitFailed);

  SetLastError(0);
  EXPECT_EQ(WaitForFd(0, kInfinite), kWaitFailed);  // 0 is the null handle
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EBADF));

  Pipe pipe;
  int closedFd = pipe.read();
  pipe.CloseRead();
  SetLastError(0);
  EXPECT_EQ(WaitForFd(closedFd, kInfinite), kWaitFailed);
  EXPECT_EQ(GetLastError(), static_cast<std::uint32_t>(EBADF));
}

TEST(EventTest, FdHandleSignalsOnDataAndOnHangUpWithoutBeingConsumed) {
  Pipe data;
  EXPECT_EQ(WaitForFd(data.read(), 20), kWaitTimeout);
  data.Write('x');
  EXPECT_EQ(WaitForFd(data.read(), 0), kWaitObject0);
  EXPECT_EQ(WaitForFd(data.read(), 0), kWaitObject0);

  Pipe exitPipe;
  std::thread closer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    exitPipe.CloseWrite();  // the writer went away
  });
  EXPECT_EQ(WaitForFd(exitPipe.read(), 5000), kWaitObject0);
  closer.join();
}

TEST(EventTest, WaitForAnyMixesEventsAndDescriptors) {
  auto event = Event::Create(true, false);
  Pipe pipe;
  FdHandle fd(pipe.read());
  std::vector<Waitable*> handles{event.get(), &fd};
  pipe.Write('x');
  EXPECT_EQ(WaitForAny(handles, 1000), kWaitObject0 + 1);
  event->Set();
  EXPECT_EQ(WaitForAny(handles, 1000), kWaitObject0);
}

}  // namespace

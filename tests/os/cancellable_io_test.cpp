#include "platform/os/cancellable_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "platform/os/thread.h"

using namespace tarn::os;

namespace {

bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 500 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return condition();
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
    while (!go) std::this_thread::sleep_for(std::chrono::milliseconds(1));
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

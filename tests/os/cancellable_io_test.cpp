#include "platform/os/cancellable_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/os/thread.h"

using namespace tarn::os;

namespace {

class CancellableReadTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::pipe(fds_), 0); }
  void TearDown() override {
    ::close(fds_[0]);
    if (fds_[1] >= 0) ::close(fds_[1]);
  }
  // A thread that reads once from the pipe after `go`, recording the result.
  std::shared_ptr<Thread> StartReader(std::atomic<bool>* go = nullptr) {
    return Thread::Start([this, go] {
      while (go && !*go) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      char buf[16];
      ssize_t n = CancellableRead(fds_[0], buf, sizeof(buf));
      error_ = GetLastError();
      n_ = n;
    });
  }
  static bool WaitUntilInRead(const Thread* thread) {
    for (int i = 0; i < 500 && !IsInCancellableRead(thread); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return IsInCancellableRead(thread);
  }
  int fds_[2];
  std::atomic<ssize_t> n_{-2};
  std::atomic<std::uint32_t> error_{0};
};

TEST_F(CancellableReadTest, CancelEndsABlockedRead) {
  auto reader = StartReader();
  ASSERT_TRUE(WaitUntilInRead(reader.get()));
  ASSERT_TRUE(CancelSynchronousIo(reader.get()));
  ASSERT_EQ(WaitForSingle(reader.get(), 5000), kWaitObject0);
  EXPECT_EQ(n_.load(), -1);
  EXPECT_EQ(error_.load(), kErrorOperationAborted);
  reader->detach();
}

TEST_F(CancellableReadTest, CancelWithNothingPendingReports1168AndSparesTheNextRead) {
  std::atomic<bool> go{false};
  auto reader = StartReader(&go);
  SetLastError(0);
  EXPECT_FALSE(CancelSynchronousIo(reader.get()));
  EXPECT_EQ(GetLastError(), kErrorNotFound);
  go = true;
  ASSERT_TRUE(WaitUntilInRead(reader.get()));
  ASSERT_EQ(::write(fds_[1], "abc", 3), 3);
  ASSERT_EQ(WaitForSingle(reader.get(), 5000), kWaitObject0);
  EXPECT_EQ(n_.load(), 3);
  reader->detach();
  EXPECT_FALSE(CancelSynchronousIo(nullptr));

  char buf[16];
  ::close(fds_[1]);
  fds_[1] = -1;
  EXPECT_EQ(CancellableRead(fds_[0], buf, sizeof(buf)), 0);  // end of file
  EXPECT_EQ(CancellableRead(-1, buf, sizeof(buf)), -1);
}

}  // namespace

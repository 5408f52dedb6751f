#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/os/cancellable_io.h"
#include "platform/os/thread.h"

using namespace tarn::os;

namespace {

struct ReadResult {
  std::atomic<ssize_t> n{-2};
  std::atomic<std::uint32_t> error{0};
};

bool WaitUntilInRead(const Thread* thread) {
  for (int i = 0; i < 500; ++i) {
    if (IsInCancellableRead(thread)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

class CancellableReadTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::pipe(fds_), 0); }
  void TearDown() override {
    ::close(fds_[0]);
    if (fds_[1] >= 0) ::close(fds_[1]);
  }
  std::shared_ptr<Thread> StartReader(ReadResult* result) {
    int fd = fds_[0];
    return Thread::Start([fd, result] {
      char buf[16];
      ssize_t n = CancellableRead(fd, buf, sizeof(buf));
      result->error = GetLastError();
      result->n = n;
    });
  }
  int fds_[2];
};

TEST_F(CancellableReadTest, CancelEndsABlockedRead) {
  ReadResult result;
  auto reader = StartReader(&result);
  ASSERT_TRUE(WaitUntilInRead(reader.get()));
  ASSERT_TRUE(CancelSynchronousIo(reader.get()));
  ASSERT_EQ(WaitForSingle(reader.get(), 5000), kWaitObject0);
  EXPECT_EQ(result.n.load(), -1);
  EXPECT_EQ(result.error.load(), kErrorOperationAborted);
  reader->detach();
}

TEST_F(CancellableReadTest, CancelWithNothingPendingReports1168AndDoesNotHitTheNextRead) {
  std::atomic<bool> go{false};
  ReadResult result;
  int fd = fds_[0];
  auto reader = Thread::Start([&, fd] {
    while (!go) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    char buf[16];
    ssize_t n = CancellableRead(fd, buf, sizeof(buf));
    result.error = GetLastError();
    result.n = n;
  });
  SetLastError(0);
  EXPECT_FALSE(CancelSynchronousIo(reader.get()));
  EXPECT_EQ(GetLastError(), kErrorNotFound);
  go = true;
  ASSERT_TRUE(WaitUntilInRead(reader.get()));
  ASSERT_EQ(::write(fds_[1], "abc", 3), 3);
  ASSERT_EQ(WaitForSingle(reader.get(), 5000), kWaitObject0);
  EXPECT_EQ(result.n.load(), 3);
  reader->detach();

  EXPECT_FALSE(CancelSynchronousIo(nullptr));
}

TEST_F(CancellableReadTest, ReadsDataAndEndOfFile) {
  ASSERT_EQ(::write(fds_[1], "hello", 5), 5);
  char buf[16];
  EXPECT_EQ(CancellableRead(fds_[0], buf, sizeof(buf)), 5);
  ::close(fds_[1]);
  fds_[1] = -1;
  EXPECT_EQ(CancellableRead(fds_[0], buf, sizeof(buf)), 0);
  EXPECT_EQ(CancellableRead(-1, buf, sizeof(buf)), -1);
}

}  // namespace

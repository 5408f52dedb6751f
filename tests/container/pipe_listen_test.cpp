// The listener on the service pipe, run as the container runs it: a managed
// thread on a real pipe, ended by the thread registry's shutdown.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "container/TarnContainerProcess.h"
#include "container/pipe_message.h"
#include "platform/log/log_capture.h"
#include "thread/ThreadManager.h"

using tarn::log::Level;
using tarn::log::LogCapture;
using VantrelThread::ThreadManager;
using namespace std::chrono_literals;

namespace {

constexpr const char* kWhere = "(TarnContainerProcess::Pipe_Listen)";

template <class Pred>
bool WaitUntil(Pred pred, std::chrono::milliseconds limit = 10s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    std::this_thread::sleep_for(2ms);
  }
  return pred();
}

class PipeListenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ThreadManager::ResetInstanceForTesting();
    ASSERT_EQ(::pipe(fds_), 0);
    TarnContainerProcess::SetEventHandlers(
        {[this](std::uint32_t type, std::uint32_t session) {
           std::lock_guard lock(mutex_);
           events_.emplace_back(type, session);
           return true;
         },
         [this] { ++logonChecks_; }});
    ASSERT_TRUE(ThreadManager::Instance().Create(TarnContainerProcess::Pipe_Listen, &fds_[0],
                                                 "TarnContainerProcess::Pipe_Listen", false));
    ASSERT_TRUE(WaitUntil([&] { return capture_.Has(Level::Info,
        std::string("TarnContainerProcess.Pipe_Listen begin.") + kWhere); }));
  }

  void TearDown() override {
    if (!shutDown_) ThreadManager::Instance().WaitAll();
    TarnContainerProcess::SetEventHandlers({});
    if (fds_[1] >= 0) ::close(fds_[1]);
    ::close(fds_[0]);
    ThreadManager::ResetInstanceForTesting();
  }

  // The registry's shutdown; a second one would meet detached threads.
  void Shutdown() {
    shutDown_ = true;
    ThreadManager::Instance().WaitAll();
  }

  // One write, and back only once the listener has taken all of it, so that
  // each write is one read on the other side.
  void Send(const std::string& bytes) {
    ASSERT_EQ(::write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ASSERT_TRUE(WaitUntil([&] {
      int pending = 0;
      return ::ioctl(fds_[0], FIONREAD, &pending) == 0 && pending == 0;
    }));
  }
  void SendText(const std::string& text) { Send(tarn::container::ToPipeBytes(text)); }

  std::vector<std::pair<std::uint32_t, std::uint32_t>> Events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  bool WaitForEvents(std::size_t n) { return WaitUntil([&] { return Events().size() >= n; }); }

  LogCapture capture_;
  int fds_[2] = {-1, -1};
  std::mutex mutex_;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> events_;
  std::atomic<int> logonChecks_{0};
  bool shutDown_ = false;
};

TEST_F(PipeListenTest, LogonIsDeliveredThenChecksThePrivacyNotice) {
  SendText("NotifyWinEvent5EventId2");
  ASSERT_TRUE(WaitForEvents(1));
  ASSERT_TRUE(WaitUntil([&] { return logonChecks_ == 1; }));
  EXPECT_EQ(Events()[0], std::make_pair(5u, 2u));

  bool tagged = false;
  for (const auto& r : capture_.Records()) {
    if (r.text == std::string("NotifyWinEvent 5luEventId 2") + kWhere) {
      tagged = r.tag == "service" && r.level == Level::Info;
    }
  }
  EXPECT_TRUE(tagged);

  // Lock and unlock reach the kits but are no logon.
  SendText("NotifyWinEvent7EventId2");
  SendText("NotifyWinEvent8EventId2");
  ASSERT_TRUE(WaitForEvents(3));
  EXPECT_EQ(Events()[2], std::make_pair(8u, 2u));
  EXPECT_EQ(logonChecks_, 1);
}

TEST_F(PipeListenTest, ZeroEventIsInvalidAndGoesNoFurther) {
  SendText("NotifyWinEvent0EventId0");
  ASSERT_TRUE(WaitUntil([&] { return capture_.Has(Level::Info, std::string("invalid notify") + kWhere); }));
  SendText("NotifyWinEvent6EventId3");
  ASSERT_TRUE(WaitForEvents(1));
  EXPECT_EQ(Events()[0], std::make_pair(6u, 3u));
  EXPECT_FALSE(capture_.Contains("NotifyWinEvent 0luEventId 0"));
  // Only one of the two numbers zero is a real event.
  SendText("NotifyWinEvent0EventId4");
  ASSERT_TRUE(WaitForEvents(2));
  EXPECT_EQ(Events()[1], std::make_pair(0u, 4u));
}

TEST_F(PipeListenTest, BadInputIsDroppedAndTheListenerGoesOn) {
  const std::string valid = tarn::container::ToPipeBytes("NotifyWinEvent5EventId9");
  Send("N");                                                     // one byte
  Send(valid.substr(0, valid.size() - 3));                       // odd length, "...EventId" and half a unit
  SendText("NotifyWinEvent7");                                   // one number only
  SendText("NotifyWinEvent7EventId");                            // the second missing
  Send(std::string(4096, '\xA5'));                               // garbage, a full read
  Send(std::string(4096, '\0'));                                 // zeros: an empty message
  SendText("EventId1NotifyWinEvent1EventId1");                   // not at the start
  // A partial message is not joined with the rest that follows.
  Send(valid.substr(0, 20));
  Send(valid.substr(20));
  EXPECT_TRUE(Events().empty());

  // The buffer is cleared before each read: a message one byte short of its
  // last unit reads as complete (the missing high byte of an ASCII digit is
  // zero), whatever a longer message left in the buffer before.
  SendText("NotifyWinEvent8EventId7777777");
  Send(valid.substr(0, valid.size() - 1));
  // Two messages in one read: only the first counts.
  SendText("NotifyWinEvent6EventId1NotifyWinEvent5EventId1");
  // More than one read holds: the first 4096 bytes are scanned alone, the
  // rest is another read and dropped.
  SendText("NotifyWinEvent8EventId4" + std::string(3000, 'x'));
  SendText("NotifyWinEvent5EventId9");
  ASSERT_TRUE(WaitForEvents(5));
  const std::vector<std::pair<std::uint32_t, std::uint32_t>> expected = {
      {8, 7777777}, {5, 9}, {6, 1}, {8, 4}, {5, 9}};
  EXPECT_EQ(Events(), expected);
  EXPECT_TRUE(WaitUntil([&] { return logonChecks_ == 2; }));
  EXPECT_FALSE(capture_.Contains("invalid notify"));
}

TEST_F(PipeListenTest, ShutdownCancelsTheBlockedRead) {
  Shutdown();
  EXPECT_TRUE(capture_.Has(Level::Info, std::string("TarnContainerProcess.Pipe_Listen end.") + kWhere));
  EXPECT_FALSE(capture_.Contains("ExitThread failed!"));
}

TEST_F(PipeListenTest, BrokenPipeSpinsUntilShutdown) {
  ::close(fds_[1]);
  fds_[1] = -1;
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(capture_.Contains("TarnContainerProcess.Pipe_Listen end."));
  Shutdown();
  EXPECT_TRUE(capture_.Has(Level::Info, std::string("TarnContainerProcess.Pipe_Listen end.") + kWhere));
  EXPECT_FALSE(capture_.Contains("ExitThread failed!"));
}

TEST(SendDataPipe, WritesTheBytesOnceAndFailsWithoutAReader) {
  LogCapture capture;
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  TarnPipeHandles handles;
  handles.pipeWrite = fds[1];
  const std::string bytes = tarn::container::ToPipeBytes("NotifyWorkStatus1");
  ASSERT_TRUE(TarnContainerProcess::SendDataPipe(handles, bytes.data(), bytes.size()));
  std::string got(64, '\0');
  got.resize(static_cast<std::size_t>(::read(fds[0], got.data(), got.size())));
  EXPECT_EQ(got, bytes);
  EXPECT_FALSE(capture.Contains("SendDataPipe failed"));

  // The service has gone: the write fails and the process lives on.
  ::close(fds[0]);
  EXPECT_FALSE(TarnContainerProcess::SendDataPipe(handles, bytes.data(), bytes.size()));
  EXPECT_TRUE(capture.Has(Level::Error, "SendDataPipe failed(TarnContainerProcess::SendDataPipe)"));
  ::close(fds[1]);

  handles.pipeWrite = -1;
  EXPECT_FALSE(TarnContainerProcess::SendDataPipe(handles, bytes.data(), bytes.size()));
}

TEST(GetParentPipeHandle, StandardDescriptorsOrTheInvalidValue) {
  TarnPipeHandles handles;
  // The test runs with its standard input and output open.
  EXPECT_TRUE(TarnContainerProcess::GetParentPipeHandle(handles));
  EXPECT_EQ(handles.pipeRead, 0);
  EXPECT_EQ(handles.pipeWrite, 1);

  // Without standard input there is no listener; without standard output the
  // link still counts. Each in a child of its own, as they close descriptors.
  EXPECT_EXIT(
      {
        LogCapture capture;
        ::close(0);
        TarnPipeHandles h;
        const bool ok = TarnContainerProcess::GetParentPipeHandle(h);
        std::_Exit(!ok && h.pipeRead == -1 &&
                           capture.Has(Level::Error, "GetParentPipeHandle pipeRead failed error: 9"
                                                     "(TarnContainerProcess::GetParentPipeHandle)")
                       ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(
      {
        LogCapture capture;
        ::close(1);
        TarnPipeHandles h;
        const bool ok = TarnContainerProcess::GetParentPipeHandle(h);
        std::_Exit(ok && h.pipeRead == 0 && h.pipeWrite == -1 &&
                           capture.Has(Level::Error, "GetParentPipeHandle pipeWrite failed error: 9"
                                                     "(TarnContainerProcess::GetParentPipeHandle)")
                       ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

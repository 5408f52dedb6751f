// The listener on the service pipe as the container runs it: a managed thread on a real pipe.
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
#include "ipc/ipc_test_util.h"
#include "platform/log/log_capture.h"
#include "thread/ThreadManager.h"

using tarn::log::Level;
using tarn::log::LogCapture;
using VantrelThread::ThreadManager;
using namespace std::chrono_literals;

namespace {

constexpr const char* kWhere = "(TarnContainerProcess::Pipe_Listen)";

using tarn::test::Eventually;

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
    ASSERT_TRUE(Eventually([&] { return capture_.Has(Level::Info,
        std::string("TarnContainerProcess.Pipe_Listen begin.") + kWhere); }));
  }

  // The registry's shutdown ends the listener whether it is blocked on the
  // open pipe or spinning on a broken one.
  void TearDown() override {
    ThreadManager::Instance().WaitAll();
    EXPECT_TRUE(capture_.Has(Level::Info, std::string("TarnContainerProcess.Pipe_Listen end.") + kWhere));
    EXPECT_FALSE(capture_.Contains("ExitThread failed!"));
    TarnContainerProcess::SetEventHandlers({});
    if (fds_[1] >= 0) ::close(fds_[1]);
    ::close(fds_[0]);
    ThreadManager::ResetInstanceForTesting();
  }

  // Back only once the listener has taken all of it: each write is one read.
  void Send(const std::string& bytes) {
    ASSERT_EQ(::write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ASSERT_TRUE(Eventually([&] {
      int pending = 0;
      return ::ioctl(fds_[0], FIONREAD, &pending) == 0 && pending == 0;
    }));
  }
  void SendText(const std::string& text) { Send(tarn::container::ToPipeBytes(text)); }

  std::vector<std::pair<std::uint32_t, std::uint32_t>> Events() {
    std::lock_guard lock(mutex_);
    return events_;
  }

  LogCapture capture_;
  int fds_[2] = {-1, -1};
  std::mutex mutex_;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> events_;
  std::atomic<int> logonChecks_{0};
};

TEST_F(PipeListenTest, EventsReachTheKitsOnlyLogonChecksTheNoticeAndBadInputIsDropped) {
  SendText("NotifyWinEvent5EventId2");
  ASSERT_TRUE(Eventually([&] { return logonChecks_ == 1; }));
  bool tagged = false;
  for (const auto& r : capture_.Records()) {
    if (r.text == std::string("NotifyWinEvent 5luEventId 2") + kWhere) tagged = r.tag == "service" && r.level == Level::Info;
  }
  EXPECT_TRUE(tagged);
  SendText("NotifyWinEvent0EventId0");
  ASSERT_TRUE(Eventually([&] { return capture_.Has(Level::Info, std::string("invalid notify") + kWhere); }));
  EXPECT_FALSE(capture_.Contains("NotifyWinEvent 0luEventId 0"));
  // Lock and unlock reach the kits but are no logon; one number zero is a real event.
  for (const char* text : {"NotifyWinEvent7EventId2", "NotifyWinEvent8EventId2", "NotifyWinEvent0EventId4"}) SendText(text);

  const std::string valid = tarn::container::ToPipeBytes("NotifyWinEvent5EventId9");
  Send("N");                                // one byte
  Send(valid.substr(0, valid.size() - 3));  // odd length: "...EventId" and half a unit
  for (const char* text : {"NotifyWinEvent7", "NotifyWinEvent7EventId", "notifywinevent5EventId2",
                           "NotifyWinEventEventId2", "xNotifyWinEvent5EventId2", "EventId1NotifyWinEvent1EventId1"}) {
    SendText(text);
  }
  Send(std::string(4096, '\xA5'));  // garbage, a full read
  Send(std::string(4096, '\0'));    // an empty message
  Send(valid.substr(0, 20));  // a partial message is not joined with its rest
  Send(valid.substr(20));

  // The buffer is cleared before each read: one byte short of the last unit
  // still reads whole, whatever a longer message left before.
  SendText("NotifyWinEvent8EventId7777777");
  Send(valid.substr(0, valid.size() - 1));
  SendText("NotifyWinEvent6EventId1NotifyWinEvent5EventId1");  // only the first counts
  SendText("NotifyWinEvent8EventId4" + std::string(3000, 'x'));  // the rest past 4096 bytes is dropped
  SendText("NotifyWinEvent4294967304EventId4294967301");  // the low 32 bits count
  SendText("NotifyWinEvent5EventId9");
  ASSERT_TRUE(Eventually([&] { return Events().size() >= 10; }));
  const std::vector<std::pair<std::uint32_t, std::uint32_t>> expected = {
      {5, 2}, {7, 2}, {8, 2}, {0, 4}, {8, 7777777}, {5, 9}, {6, 1}, {8, 4}, {8, 5}, {5, 9}};
  EXPECT_EQ(Events(), expected);
  EXPECT_TRUE(Eventually([&] { return logonChecks_ == 3; }));
  EXPECT_EQ(1u, capture_.CountContaining("invalid notify"));
}

TEST_F(PipeListenTest, BrokenPipeSpinsUntilShutdown) {
  ::close(fds_[1]);
  fds_[1] = -1;
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(capture_.Contains("TarnContainerProcess.Pipe_Listen end."));
}

// The bytes themselves are checked on the real container's output.
TEST(SendDataPipe, FailsWithoutAReaderAndTheProcessLivesOn) {
  LogCapture capture;
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  TarnPipeHandles handles;
  handles.pipeWrite = fds[1];
  const std::string bytes = tarn::container::ToPipeBytes("NotifyWorkStatus1");
  ASSERT_TRUE(TarnContainerProcess::SendDataPipe(handles, bytes.data(), bytes.size()));
  EXPECT_FALSE(capture.Contains("SendDataPipe failed"));
  ::close(fds[0]);  // the service has gone
  EXPECT_FALSE(TarnContainerProcess::SendDataPipe(handles, bytes.data(), bytes.size()));
  EXPECT_TRUE(capture.Has(Level::Error, "SendDataPipe failed(TarnContainerProcess::SendDataPipe)"));
  ::close(fds[1]);
  handles.pipeWrite = -1;
  EXPECT_FALSE(TarnContainerProcess::SendDataPipe(handles, bytes.data(), bytes.size()));
}

TEST(GetParentPipeHandle, StandardDescriptorsOrTheInvalidValue) {
  TarnPipeHandles handles;
  EXPECT_TRUE(TarnContainerProcess::GetParentPipeHandle(handles));
  EXPECT_EQ(std::make_pair(handles.pipeRead, handles.pipeWrite), std::make_pair(0, 1));
  // Without standard input there is no listener; without standard output the
  // link still counts. In children, as they close descriptors.
  for (int fd : {0, 1}) {
    EXPECT_EXIT(
        {
          LogCapture capture;
          ::close(fd);
          TarnPipeHandles h;
          const bool ok = TarnContainerProcess::GetParentPipeHandle(h);
          const std::string line = std::string("GetParentPipeHandle ") + (fd == 0 ? "pipeRead" : "pipeWrite") +
                                   " failed error: 9(TarnContainerProcess::GetParentPipeHandle)";
          const bool right = fd == 0 ? !ok && h.pipeRead == -1 : ok && h.pipeRead == 0 && h.pipeWrite == -1;
          std::_Exit(right && capture.Has(Level::Error, line) ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "")
        << fd;
  }
}

}  // namespace

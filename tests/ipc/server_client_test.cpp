#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc_test_util.h"
#include "platform/ipc/ipc_server.h"
#include "platform/log/log_capture.h"
#include "support/temp_root.h"

namespace {

using namespace std::chrono_literals;
using namespace tarn::test;

// A started server with the container's sender attached, as the container has
// it; run with reader threads and with the worker pool alone.
class IpcServerTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override { StartServer({}); }
  void TearDown() override {
    host_->UnRegisterMessageCallbackAll();
    server_->Stop();
  }
  // (Re)starts the server with these options and the reader threads of the run.
  void StartServer(TarnCoreIPCMessageServer::Options options) {
    if (host_) host_->UnRegisterMessageCallbackAll();
    if (server_) server_->Stop();
    options.readerThreads = GetParam();
    server_ = std::make_unique<TarnCoreIPCMessageServer>(options);
    ASSERT_TRUE(server_->Start());
    host_ = std::make_unique<TarnCoreIPCMessageClient>(IpcAddressContainer, true, true);
  }

  // Answers every request with "echo:" and its text.
  void Echo() {
    host_->RegisterMessageCallback(IpcRequestMessageCode, [this](TagIPCMessageItem& item) {
      Answer(item.syncMessageId, "echo:" + std::string(item.body));
    });
  }

  bool Answer(int32_t id, std::string text) {
    TagIPCMessageItem out = ResponseItem(id);
    out.body = text.data();
    out.bodySize = static_cast<uint32_t>(text.size() + 1);
    return host_->PostIPCMessage(out);
  }

  int Connect() { return RawConnect(server_->SocketPathInUse()); }

  tarn::test::TempRoot root_;
  tarn::log::LogCapture logs_;
  std::unique_ptr<TarnCoreIPCMessageServer> server_;
  std::unique_ptr<TarnCoreIPCMessageClient> host_;
};

TEST_P(IpcServerTest, ListensOnTheRuntimeSocketForEveryLocalUser) {
  EXPECT_EQ(root_.At("run/tarncore/ipc.sock"), server_->SocketPathInUse());
  struct stat st {};
  ASSERT_EQ(0, ::stat(root_.At("run/tarncore/ipc.sock").c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(0666u, st.st_mode & 0777);
  // A second server must not take over a live socket.
  TarnCoreIPCMessageServer second;
  EXPECT_FALSE(second.Start());
  Echo();
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  std::string response;
  EXPECT_EQ(0, SendRequest(client, 1, "still here", response));
}

TEST_P(IpcServerTest, FramesOnTheWireAreExactAndCallerPidIsKnownUntilAnswered) {
  std::promise<std::pair<TagIPCMessageItem, std::string>> got;
  std::atomic<uint32_t> pidSeen{0};
  host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem& item) {
    pidSeen = server_->GetCallerPidByMsgId(item.syncMessageId);
    // The body arrives zero-terminated although the client sent no terminator.
    got.set_value({item, std::string(item.body, item.bodySize + 1)});
    Answer(item.syncMessageId, "{}");
  });
  int fd = Connect();
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(WriteAll(fd, EncodeFrame(RequestItem(-5), "{\"a\":1}")));

  auto future = got.get_future();
  ASSERT_EQ(std::future_status::ready, future.wait_for(std::chrono::milliseconds(kLong)));
  auto [item, body] = future.get();
  EXPECT_EQ(IpcRequestMessageCode, item.messageCode);
  EXPECT_EQ(-5, item.syncMessageId);
  EXPECT_EQ(7u, item.bodySize);
  EXPECT_EQ(std::string("{\"a\":1}\0", 8), body);
  EXPECT_EQ(static_cast<uint32_t>(::getpid()), pidSeen.load());

  std::string header, payload;
  ASSERT_TRUE(ReadExact(fd, header, 32));
  const unsigned char expected[32] = {
      0x00, 0x00, 0x70, 0x00,  0x00, 0x00, 0x71, 0x00,  0x08, 0x00, 0x66, 0x00,
      0x00, 0x00, 0x00, 0x00,  0xFF, 0xFF, 0xFF, 0xFF,  0xFB, 0xFF, 0xFF, 0xFF,
      0x03, 0x00, 0x00, 0x00,  0x01, 0x00, 0x00, 0x00};
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(expected), 32), header);
  ASSERT_TRUE(ReadExact(fd, payload, 3));
  EXPECT_EQ(std::string("{}\0", 3), payload);
  EXPECT_EQ(0u, server_->GetCallerPidByMsgId(-5));  // answered: the entry is gone
  EXPECT_FALSE(Answer(-5, "again"));
  ::close(fd);
}

// Each request waits inside its callback until all of them are inside, so
// they only pass when they run at the same time. The frames come in one write
// (read in one go) or one by one, each after the previous one is running (a
// request that keeps its connection busy must not hold up the next one).
TEST_P(IpcServerTest, RequestsFromOneConnectionRunAtOnce) {
  for (const bool burst : {true, false}) {
    SCOPED_TRACE(burst ? "in one write" : "one by one");
    constexpr int kRequests = 8;
    std::mutex m;
    std::condition_variable cv;
    int inside = 0;
    int allInside = 0;
    host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem& item) {
      {
        std::unique_lock lock(m);
        ++inside;
        cv.notify_all();
        if (cv.wait_for(lock, std::chrono::milliseconds(kLong), [&] { return inside == kRequests; })) {
          ++allInside;
        }
      }
      Answer(item.syncMessageId, "done");
    });
    int fd = Connect();
    ASSERT_GE(fd, 0);
    if (burst) {
      std::string frames;
      for (int i = 1; i <= kRequests; ++i) frames += EncodeFrame(RequestItem(i), "r");
      ASSERT_TRUE(WriteAll(fd, frames));
    } else {
      for (int i = 1; i <= kRequests; ++i) {
        ASSERT_TRUE(WriteAll(fd, EncodeFrame(RequestItem(i), "r")));
        std::unique_lock lock(m);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::milliseconds(kLong), [&] { return inside >= i; }));
      }
    }
    std::set<int32_t> answered;
    for (int i = 0; i < kRequests; ++i) {
      TagIPCMessageItem item;
      std::string body;
      ASSERT_TRUE(ReadFrame(fd, item, body));
      answered.insert(item.syncMessageId);
    }
    EXPECT_EQ(static_cast<std::size_t>(kRequests), answered.size());
    EXPECT_EQ(kRequests, allInside);
    host_->UnRegisterMessageCallbackAll();
    ::close(fd);
  }
}

TEST_P(IpcServerTest, SixteenMiBCrossWholeWhileALargerFrameOrGarbageClosesOnlyItsConnection) {
  // 16 MiB on the wire with the terminator, the largest allowed.
  std::string text(16u * 1024 * 1024 - 1, 'y');
  for (std::size_t i = 0; i < text.size(); i += 4093) text[i] = static_cast<char>('a' + i % 26);
  text.back() = 'z';
  host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem& item) {
    const bool same = item.bodySize == text.size() + 1 && std::string(item.body, item.bodySize - 1) == text;
    Answer(item.syncMessageId, same ? "same" : "echo:" + std::string(item.body));
  });
  TarnCoreIPCMessageClient good(IpcAddressClientSide, true, false);
  std::string response;
  ASSERT_EQ(0, SendRequest(good, 1, text, response));
  EXPECT_EQ("same", response);

  int big = Connect();
  int junk = Connect();
  ASSERT_GE(big, 0);
  ASSERT_GE(junk, 0);
  ASSERT_TRUE(Eventually([&] { return server_->ConnectionCount() == 3; }));
  ASSERT_TRUE(WriteAll(big, EncodeHeader(RequestItem(2), 16u * 1024 * 1024 + 1)));
  ASSERT_TRUE(WriteAll(junk, "GET / HTTP/1.1\r\nHost: tarncore\r\nAccept: */*\r\n\r\n"));
  EXPECT_TRUE(WaitClosed(big));
  EXPECT_TRUE(WaitClosed(junk));
  EXPECT_TRUE(Eventually([&] { return server_->ConnectionCount() == 1; }));
  EXPECT_EQ(0, SendRequest(good, 3, "after", response));
  EXPECT_EQ("echo:after", response);
  ::close(big);
  ::close(junk);
}

TEST_P(IpcServerTest, SyncCallsFromManyThreadsOfOneClientGetTheirOwnAnswers) {
  Echo();
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  // With a callback registered the library reads on its own thread; without, callers read.
  TarnCoreIPCMessageClient listening(IpcAddressClientSide, true, false);
  listening.RegisterMessageCallback(IpcBroadcastMessageCode, [](TagIPCMessageItem&) {});
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        int32_t id = t * 1000 + i;
        std::string response, text = "m" + std::to_string(id);
        if (SendRequest((i % 2) ? client : listening, id, text, response) != 0 || response != "echo:" + text) {
          ++wrong;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
}

TEST_P(IpcServerTest, ClientCodesAndReconnectingToARestartedServer) {
  std::atomic<bool> answer{false};
  host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem& item) {
    if (answer) Answer(item.syncMessageId, "echo:" + std::string(item.body));
  });
  TarnCoreIPCMessageClient client(IpcAddressClientSide, true, false);
  // Reconnecting clients that sit idle across a restart: one whose callers
  // read, one read by the library's thread, one that only posts.
  TarnCoreIPCMessageClient reconnecting(IpcAddressClientSide, true, true);
  TarnCoreIPCMessageClient listening(IpcAddressClientSide, true, true);
  listening.RegisterMessageCallback(IpcBroadcastMessageCode, [](TagIPCMessageItem&) {});
  TarnCoreIPCMessageClient posting(IpcAddressClientSide, true, true);
  ASSERT_TRUE(Eventually([&] { return server_->ConnectionCount() == 4; }));
  std::string response;
  EXPECT_EQ(9004, SendRequest(client, 1, "x", response, 0));
  TagIPCMessageItem noBody = RequestItem(1);
  EXPECT_EQ(9000, client.SendMessageSync(noBody, response, 100));
  EXPECT_EQ(9003, SendRequest(client, 1, "x", response, 300));
  answer = true;
  EXPECT_EQ(0, SendRequest(client, 2, "x", response));  // a time-out leaves the client usable
  EXPECT_EQ(0, SendRequest(reconnecting, 2, "x", response));

  // The same id awaited twice at once on one client.
  answer = false;
  auto pending = std::async(std::launch::async, [&] {
    std::string r;
    return SendRequest(client, 3, "x", r, 2000);
  });
  ASSERT_TRUE(Eventually([&] { return server_->GetCallerPidByMsgId(3) != 0; }));
  EXPECT_EQ(9005, SendRequest(client, 3, "y", response, 100));
  EXPECT_EQ(9003, pending.get());

  // The container goes away while a caller waits.
  auto waiting = std::async(std::launch::async, [&] {
    std::string r;
    return SendRequest(client, 4, "x", r);
  });
  ASSERT_TRUE(Eventually([&] { return server_->GetCallerPidByMsgId(4) != 0; }));
  host_->UnRegisterMessageCallbackAll();
  server_->Stop();
  EXPECT_EQ(9002, waiting.get());
  EXPECT_EQ(9001, SendRequest(client, 5, "x", response));  // no reconnect asked for
  TarnCoreIPCMessageClient fresh(IpcAddressClientSide, true, true);
  EXPECT_FALSE(fresh.IsConnected());
  EXPECT_EQ(9001, SendRequest(fresh, 6, "x", response));
  TarnCoreIPCMessageClient containerSide(IpcAddressContainer, true, true);
  EXPECT_EQ(9005, SendRequest(containerSide, 7, "x", response));

  // The container comes back. A reconnecting client's first call gets through,
  // whether or not anything read the old connection's end, and reaches the
  // server once; a client without reconnect stays cut off.
  ASSERT_TRUE(server_->Start());
  host_ = std::make_unique<TarnCoreIPCMessageClient>(IpcAddressContainer, true, true);
  std::mutex seenMutex;
  std::multiset<std::string> seen;
  host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem& item) {
    {
      std::lock_guard lock(seenMutex);
      seen.insert(item.body);
    }
    Answer(item.syncMessageId, "echo:" + std::string(item.body));
  });
  EXPECT_EQ(0, SendRequest(reconnecting, 9, "c", response));
  EXPECT_EQ("echo:c", response);
  EXPECT_EQ(0, SendRequest(listening, 10, "d", response));
  EXPECT_EQ("echo:d", response);
  TagIPCMessageItem posted = RequestItem(11);
  std::string text = "e";
  posted.body = text.data();
  posted.bodySize = static_cast<uint32_t>(text.size() + 1);
  EXPECT_TRUE(posting.PostIPCMessage(posted));
  EXPECT_EQ(9001, SendRequest(client, 12, "x", response));
  // A call after each gives a second copy of the first a chance to show.
  EXPECT_EQ(0, SendRequest(reconnecting, 13, "f", response));
  EXPECT_EQ(0, SendRequest(listening, 14, "g", response));
  EXPECT_EQ(0, SendRequest(posting, 15, "h", response));
  EXPECT_TRUE(Eventually([&] {
    std::lock_guard lock(seenMutex);
    return seen.count("e") != 0;  // a post is not answered
  }));
  host_->UnRegisterMessageCallbackAll();
  std::lock_guard lock(seenMutex);
  EXPECT_EQ((std::multiset<std::string>{"c", "d", "e", "f", "g", "h"}), seen);
}

TEST_P(IpcServerTest, UnregisterWaitsForRunningCallbacks) {
  std::promise<void> entered, release;
  std::atomic<bool> finished{false};
  host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem&) {
    entered.set_value();
    release.get_future().wait();
    finished = true;
  });
  int fd = Connect();
  ASSERT_TRUE(WriteAll(fd, EncodeFrame(RequestItem(1), "x")));
  ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(std::chrono::milliseconds(kLong)));
  auto unregister = std::async(std::launch::async, [&] {
    host_->UnRegisterMessageCallbackAll();
    return finished.load();
  });
  EXPECT_EQ(std::future_status::timeout, unregister.wait_for(100ms));
  release.set_value();
  EXPECT_TRUE(unregister.get());
  ::close(fd);
}

// Requests that are never answered keep their routes only while their
// connection lasts, and at most maxUnanswered of them: the oldest give way.
TEST_P(IpcServerTest, UnansweredRequestsKeepBoundedRoutesWhileTheirConnectionLasts) {
  TarnCoreIPCMessageServer::Options options;
  options.maxUnanswered = 3;
  StartServer(options);
  std::atomic<int> delivered{0};
  host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem&) { ++delivered; });
  int fd = Connect();
  std::string frames;
  for (int id = 1; id <= 5; ++id) frames += EncodeFrame(RequestItem(id), "unanswered");
  ASSERT_TRUE(WriteAll(fd, frames));
  ASSERT_TRUE(Eventually([&] { return delivered == 5; }));
  auto routed = [&] {
    std::vector<uint32_t> pids;
    for (int id = 1; id <= 5; ++id) pids.push_back(server_->GetCallerPidByMsgId(id));
    return pids;
  };
  const uint32_t self = static_cast<uint32_t>(::getpid());
  EXPECT_EQ((std::vector<uint32_t>{0, 0, self, self, self}), routed());
  EXPECT_TRUE(logs_.Has(tarn::log::Level::Warn, "ipc connection holds 3 unanswered requests, the oldest give way "
                                                "(syncMessageId 1), pid " + std::to_string(self)));
  ::close(fd);
  EXPECT_TRUE(Eventually([&] { return routed() == std::vector<uint32_t>(5, 0); }));
}

// Another process that sends an id under way takes over its answer, as
// answers go by id; the request under way is still its own sender's.
TEST_P(IpcServerTest, AnIdSentAgainTakesTheAnswerButNotTheCaller) {
  std::promise<void> firstInside, releaseFirst;
  std::atomic<int> calls{0};
  std::atomic<uint32_t> firstCaller{0};
  host_->RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem& item) {
    if (calls++ != 0) return;
    firstInside.set_value();
    releaseFirst.get_future().wait();
    firstCaller = server_->GetCallerPidByMsgId(item.syncMessageId);
    Answer(item.syncMessageId, "first");
  });
  int fd = Connect();
  ASSERT_TRUE(WriteAll(fd, EncodeFrame(RequestItem(9), "mine")));
  ASSERT_EQ(std::future_status::ready, firstInside.get_future().wait_for(std::chrono::milliseconds(kLong)));

  // Another process sends the same id; the answer of the first goes to it.
  const pid_t other = SendFromChild(server_->SocketPathInUse(), EncodeFrame(RequestItem(9), "also mine"),
                                    EncodeFrame(ResponseItem(9), std::string("first", 6)));
  ASSERT_GT(other, 0);
  EXPECT_TRUE(Eventually([&] { return server_->GetCallerPidByMsgId(9) == static_cast<uint32_t>(other); }));
  releaseFirst.set_value();
  int status = -1;
  EXPECT_EQ(other, ::waitpid(other, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ(static_cast<uint32_t>(::getpid()), firstCaller.load());
  ::close(fd);
}

// Clients past maxConnections wait to be accepted until one leaves; frames
// past maxQueuedFrames are run by the thread that read them; a request that
// would take the bytes held past maxBufferedInput closes its connection.
TEST_P(IpcServerTest, PastItsBoundsTheServerMakesClientsWaitOrCutsThemOff) {
  TarnCoreIPCMessageServer::Options options;
  options.maxConnections = 2;
  options.maxQueuedFrames = 0;
  options.maxBufferedInput = 64 * 1024;
  StartServer(options);
  Echo();
  using tarn::log::Level;
  int first = Connect(), second = Connect();
  ASSERT_TRUE(Eventually([&] { return server_->ConnectionCount() == 2; }));
  int waiting = Connect();  // the kernel takes it into the listen queue
  ASSERT_GE(waiting, 0);
  ASSERT_TRUE(WriteAll(waiting, EncodeFrame(RequestItem(3), "waited")));
  std::string frames, body;
  for (int id = 1; id <= 3; ++id) frames += EncodeFrame(RequestItem(id), "burst");
  ASSERT_TRUE(WriteAll(first, frames));
  TagIPCMessageItem item;
  for (int id = 1; id <= 3; ++id) {
    ASSERT_TRUE(ReadFrame(first, item, body));
    EXPECT_EQ(std::string("echo:burst", 11), body);
  }
  EXPECT_TRUE(logs_.Has(Level::Warn, "ipc requests waiting for a worker at their limit of 0, readers run theirs"));
  EXPECT_TRUE(Eventually([&] { return logs_.Has(Level::Warn, "ipc connections at their limit of 2, new ones wait"); }));
  EXPECT_EQ(2u, server_->ConnectionCount());

  // More than the bound, sent in part: the connection is cut off, nothing else.
  ASSERT_TRUE(WriteAll(second, EncodeHeader(RequestItem(4), 1024 * 1024) + std::string(100 * 1024, 'x')));
  EXPECT_TRUE(WaitClosed(second));
  EXPECT_TRUE(logs_.Has(Level::Warn, "ipc connection closed: requests hold the input bound, pid " +
                                         std::to_string(::getpid())));
  ASSERT_TRUE(ReadFrame(waiting, item, body));  // accepted now, and answered
  EXPECT_EQ(std::string("echo:waited", 12), body);
  for (int fd : {first, second, waiting}) ::close(fd);
}

INSTANTIATE_TEST_SUITE_P(Readers, IpcServerTest, ::testing::Values(64, 0),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return info.param ? "WithReaders" : "PoolOnly";
                         });

}  // namespace

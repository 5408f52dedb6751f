// The client library against a real TarnCoreContainer under a temporary machine root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <mutex>
#include <thread>

#include "programs.h"
#include "support/eventually.h"
#include "tarncore/client.h"

using namespace std::chrono_literals;
using namespace tarn::test;

namespace {

constexpr const char* kFailedLine = "RequestInvoke Excute failed.";

TEST(ClientLibrary, CallsAndBroadcastsThenTheContainerGoingAwayMidCall) {
  TempRoot root;
  const std::string program = InstallPrograms(root) + "TarnCoreContainer";
  int exitPipe[2];
  ASSERT_EQ(::pipe2(exitPipe, O_CLOEXEC), 0);
  pid_t container = Spawn({program, "5"}, {-1, exitPipe[0], 5, {}});
  ::close(exitPipe[0]);

  // Listening from before the start-up tail, whose service-start broadcast comes to us.
  tarncore::Client client(tarncore::Header{{"client_id", "client-library-test"}});
  std::promise<std::string> broadcast;
  std::once_flag first;
  auto heard = broadcast.get_future();
  ASSERT_TRUE(Eventually([&] {
    return client.Listen([&](const std::string& text) { std::call_once(first, [&] { broadcast.set_value(text); }); }) ==
           tarncore::kOk;
  }, 15s)) << "the container's socket never took a connection";
  ASSERT_EQ(heard.wait_for(15s), std::future_status::ready);
  EXPECT_NE(heard.get().find("com.vantrel.tarn.updateKit"), std::string::npos);

  // An unsigned caller gets the container's refusal, parsed, both ways.
  const tarncore::Response sync = client.Call("Demo.Echo");
  EXPECT_EQ(sync.clientCode, tarncore::kOk) << sync.text;
  EXPECT_EQ(sync.StatusCode(), "907135004") << sync.text;
  EXPECT_FALSE(sync.Ok());
  std::promise<tarncore::Response> answered;
  client.CallAsync("Demo.Echo", Json::Value(Json::objectValue), {}, 10000,
                   [&](const tarncore::Response& response) { answered.set_value(response); });
  EXPECT_EQ(answered.get_future().get().StatusCode(), "907135004");

  // A header value that isn't a string leaves the caller without an answer:
  // the call ends at its time-out, or at once when the container goes away.
  const std::string unanswered = R"({"header":{"apiLevel":1}})";
  EXPECT_EQ(client.Send(unanswered, 300).clientCode, tarncore::kTimeout);
  ASSERT_TRUE(WaitForText(ContainerLog(root), kFailedLine, 15s, 1));
  auto midCall = std::async(std::launch::async, [&] { return client.Send(unanswered, 120000).clientCode; });
  ASSERT_TRUE(WaitForText(ContainerLog(root), kFailedLine, 15s, 2));
  KillAndReap(container);
  EXPECT_EQ(midCall.get(), tarncore::kResponseError);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_EQ(client.Call("Demo.Echo").clientCode, tarncore::kServiceNotUsed);
  ::close(exitPipe[1]);
}

}  // namespace

// TarnCoreNotice and TarnCoreUI against a stand-in container: what each
// answer sends, and the notice's own registry write when no container is there.
#include <gtest/gtest.h>
#include <json/value.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ipc_test_util.h"
#include "platform/ipc/ipc_server.h"
#include "platform/os/named_mutex.h"
#include "support/json.h"
#include "support/run_program.h"
#include "support/temp_root.h"

namespace {

using tarn::test::kVtid;
using tarn::test::ParseJson;

// Answers every request with a fixed text and keeps what came.
class StandInContainer {
 public:
  explicit StandInContainer(std::string answer) : answer_(std::move(answer)) {
    EXPECT_TRUE(server_.Start());
    // The container's sender attaches to the server started last.
    sender_ = std::make_unique<TarnCoreIPCMessageClient>(IpcAddressContainer, true, false);
    sender_->RegisterMessageCallback(IpcRequestMessageCode, [this](TagIPCMessageItem& item) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(ParseJson(item.body ? item.body : ""));
      }
      TagIPCMessageItem reply = tarn::test::ResponseItem(item.syncMessageId);
      reply.body = answer_.data();
      reply.bodySize = static_cast<uint32_t>(answer_.size() + 1);
      sender_->PostIPCMessage(reply);
    });
  }
  ~StandInContainer() {
    sender_->UnRegisterMessageCallbackAll();
    server_.Stop();
  }
  std::vector<Json::Value> Requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  std::string answer_;
  TarnCoreIPCMessageServer server_;
  std::unique_ptr<TarnCoreIPCMessageClient> sender_;
  std::mutex mutex_;
  std::vector<Json::Value> requests_;
};

int RunTool(const std::vector<std::string>& argv) {
  return tarn::test::RunProgram(argv[0], {argv.begin() + 1, argv.end()}).exitCode;
}

std::string Notice() { return tarn::test::BuildDir() + "/tools/notice/TarnCoreNotice"; }
std::string Ui() { return tarn::test::BuildDir() + "/tools/ui/TarnCoreUI"; }

TEST(NoticeToolsTest, AnswersGoToTheContainerAsFrameworkRequests) {
  const std::string taken = R"({"header":{"status_code":"907135009"},"body":{}})";
  // The settings handler's answer goes out under the request's own header.
  const std::string stored = R"({"header":{"api_name":"Framework.SetRegValue"},"body":{"returnCode":true}})";
  const std::string notStored = R"({"header":{"api_name":"Framework.SetRegValue"},"body":{"returnCode":false}})";
  const char* kResult = "Framework.UpdatekitResult";
  const char* kSet = "Framework.SetRegValue";
  struct Case {
    std::vector<std::string> argv;
    std::string answer;
    int exitCode;
    const char* uri;
    const char* body;
    const char* control;  // the notice's: the control its events name
  } cases[] = {
      {{Ui(), "Dialog_ApiLevel", "--decline"}, taken, 0, kResult, R"({"resultCode":"907135010"})", nullptr},
      {{Ui(), "Upgrade", "--accept"}, taken, 0, kResult, R"({"resultCode":"0","updateKitName":"ALL"})", nullptr},
      {{Ui(), "Dialog_ApiLevel", "--decline"}, stored, 1, kResult, R"({"resultCode":"907135010"})", nullptr},
      {{Notice(), "PrivacyNotice", "--accept"}, stored, 0, kSet, R"({"key":"PrivacyNotice","value":"true"})", "btnOk"},
      {{Notice(), "PrivacyAgree", "--accept"}, stored, 0, kSet, R"({"key":"PrivacyAgree","value":"64000000"})", "btnOk"},
      {{Notice(), "PrivacyAgree", "--decline"}, notStored, 1, kSet, R"({"key":"ShareAnalysis","value":"false"})", "btnCancel"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argv[0] + " " + c.argv[1] + " " + c.argv[2]);
    tarn::test::TempRoot root;
    root.MakeDir(kVtid);
    StandInContainer container(c.answer);
    EXPECT_EQ(RunTool(c.argv), c.exitCode);
    const auto requests = container.Requests();
    ASSERT_EQ(requests.size(), c.control ? 4u : 1u);
    EXPECT_EQ(requests[0]["header"]["api_name"].asString(), c.uri);
    EXPECT_EQ(requests[0]["header"]["client_id"].asString(), "204518762");
    EXPECT_EQ(requests[0]["body"], ParseJson(c.body));
    // With a container there, the notice leaves the registry to it.
    EXPECT_EQ(root.ReadFile(kVtid + "PrivacyNotice"), "");
    if (!c.control) continue;
    // Then the notice's use, once it has closed: opened, the answer's control, closed.
    const std::vector<std::pair<std::string, std::string>> events{
        {"TARN_PC_SERVICE_UI_OPEN", c.argv[1]}, {"TARN_PC_SERVICE_UI_OPERATOR", c.control}, {"TARN_PC_SERVICE_UI_CLOSE", c.argv[1]}};
    for (std::size_t i = 0; i < events.size(); ++i) {
      const Json::Value& request = requests[i + 1];
      EXPECT_EQ(request["header"]["api_name"].asString(), "Framework.NoticeEvReport");
      EXPECT_EQ(request["body"]["type"].asString(), "TARNCORE_NOTICE_UI");
      const Json::Value event = ParseJson(request["body"]["data"].asString())["EVReports"][0];
      EXPECT_EQ(event["event_name"].asString(), events[i].first);
      EXPECT_EQ(event["event_data"]["tarncore_ui_name"].asString(), "TarnCoreNotice");
      EXPECT_EQ(event["event_data"]["oper_Content"].asString(), events[i].second);
    }
  }
}

TEST(NoticeToolsTest, NoticeWritesItselfWithoutContainerAndRunsOnce) {
  tarn::test::TempRoot root;
  root.MakeDir(kVtid);
  {
    auto held = tarn::os::NamedMutex::Create("Global\\VTFrameworkNoticeMutex");
    ASSERT_TRUE(held && held->owned());
    EXPECT_EQ(RunTool({Notice(), "PrivacyNotice", "--accept", "--wait", "0"}), 4);
  }
  EXPECT_EQ(root.ReadFile(kVtid + "PrivacyNotice"), "");
  // No terminal and no answer: nothing is recorded.
  EXPECT_EQ(RunTool({Notice(), "PrivacyNotice"}), 3);

  EXPECT_EQ(RunTool({Notice(), "PrivacyNotice", "--accept", "--wait", "0"}), 0);
  EXPECT_EQ(root.ReadFile(kVtid + "PrivacyNotice"), "true");
  EXPECT_EQ(root.ReadFile(kVtid + "PrivacyAgree"), "64000000");
}

}  // namespace

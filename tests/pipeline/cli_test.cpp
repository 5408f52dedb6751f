// The tarncore program against the container's endpoint in this process.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <future>
#include <sstream>
#include <string>

#include "pipeline/pipeline_fakes.h"

#ifdef TARN_CLI

namespace {

using tarn::test::ParseJson;

struct CliRun {
  int exitCode = -1;
  std::string output;  // standard output and error together
  bool Has(const std::string& part) const { return output.find(part) != std::string::npos; }
};

// Runs tarncore with the machine root of this test (inherited from the environment).
CliRun Tarncore(const std::vector<std::string>& args) {
  std::string command = "'" TARN_CLI "'";
  for (const auto& a : args) {
    command += " '";
    for (char c : a) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += "'";
  }
  CliRun run;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return run;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof(buf), pipe)) > 0;) run.output.append(buf, n);
  int status = ::pclose(pipe);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

using Cli = tarn::test::PipelineFixture;

TEST_F(Cli, CallBuildsAWellFormedRequestAndExitsZeroOnSuccess) {
  std::mutex m;
  std::string headerText;
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest& request, ServerResCallBack* cb,
                       ResponseStatus&) {
    {
      std::lock_guard lock(m);
      headerText = request.header;
    }
    std::string body = request.body;
    cb->Excute(body);  // echo the body back
  });
  CliRun run = Tarncore({"call", "Demo.Echo", "--body", "{\"x\":[1,2]}", "--header", "client_id=abc",
                         "--header", "custom=7"});
  EXPECT_EQ(0, run.exitCode) << run.output;
  Json::Value response = ParseJson(run.output);
  EXPECT_EQ("0", response["header"]["status_code"].asString());
  EXPECT_EQ(2, response["body"]["x"][1].asInt());

  std::lock_guard lock(m);
  Json::Value header = ParseJson(headerText);
  for (const auto& key : header.getMemberNames()) EXPECT_TRUE(header[key].isString()) << key;
  for (const char* key : {"version", "app_id", "pkg_name", "sdk_version", "session_id", "kitSdkVersion", "apiLevel"}) {
    EXPECT_FALSE(header[key].asString().empty()) << key;
  }
  EXPECT_EQ("abc/7/Demo.Echo/Demo/32", header["client_id"].asString() + "/" + header["custom"].asString() + "/" +
                                           header["api_name"].asString() + "/" + header["srv_name"].asString() +
                                           "/" + std::to_string(header["transaction_id"].asString().size()));
}

TEST_F(Cli, ExitCodesForRefusalsClientFailuresAndUsage) {
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    const char* text;
  } cases[] = {
      {{"call", "Nobody.Home"}, 1, "\"status_code\":\"907135001\""},
      {{"send", "--raw", "definitely not json"}, 1, "data format is error."},
      {{"send", "--raw", "{\"header\":{\"apiLevel\":1}}", "--timeout", "300"}, 3, "9003 Sending Message is TimeOut."},
      {{"call", "A.b", "--timeout", "0"}, 3, "9004"},
      {{}, 2, ""}, {{"bogus"}, 2, ""}, {{"call"}, 2, ""}, {{"call", "A.b", "--body", "{nope"}, 2, ""},
      {{"call", "A.b", "--header", "novalue"}, 2, ""}, {{"send"}, 2, ""}, {{"listen", "--count", "x"}, 2, ""},
      {{"--help"}, 0, "call URI"},
  };
  for (const Case& c : cases) {
    CliRun run = Tarncore(c.args);
    EXPECT_EQ(c.exitCode, run.exitCode) << run.output;
    EXPECT_TRUE(run.Has(c.text)) << run.output;
  }
  ServerManager::GetInstance().ServerUnInit();
  CliRun down = Tarncore({"call", "A.b"});
  EXPECT_EQ(3, down.exitCode) << down.output;
  EXPECT_TRUE(down.Has("9001")) << down.output;
  EXPECT_EQ(3, Tarncore({"listen", "--count", "1"}).exitCode);
}

TEST_F(Cli, ListenPrintsBroadcastsAsTheyCome) {
  auto listening = std::async(std::launch::async, [] {
    return Tarncore({"listen", "--count", "2", "--timeout", std::to_string(tarn::test::kLong)});
  });
  ASSERT_TRUE(tarn::test::Eventually([] { return g_tarnCoreIpcServer->ConnectionCount() > 0; }));
  ServerManager::GetInstance().BroadcastMessage("first");
  ServerManager::GetInstance().BroadcastMessage("{\"second\":2}\n");
  CliRun run = listening.get();
  EXPECT_EQ(0, run.exitCode) << run.output;
  EXPECT_EQ("first\n{\"second\":2}\n", run.output);
}

// A signed tarncore passes the real signature check once its key is trusted;
// this unsigned test program does not.
TEST_F(Cli, SignedClientPassesTheRealSignatureCheck) {
  SignatureVerifyer::SetInstanceForTesting(nullptr);
  std::stringstream pub;
  pub << std::ifstream(TARN_DEV_PUBLIC_KEY).rdbuf();
  ASSERT_FALSE(pub.str().empty());
  root_.WriteFile("etc/tarncore/trusted-keys/tarn-dev.pub", pub.str());
  CliRun run = Tarncore({"call", "Demo.Echo"});
  EXPECT_EQ(1, run.exitCode) << run.output;
  EXPECT_TRUE(run.Has("\"status_code\":\"907135001\"")) << run.output;
  EXPECT_EQ(1, gates_.fingerprintCalls.load());
  EXPECT_EQ("907135004", StatusFor(5, "self"));
}

}  // namespace

#endif  // TARN_CLI

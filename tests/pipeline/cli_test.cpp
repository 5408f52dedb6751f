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

using tarn::test::kLong;

struct CliRun {
  int exitCode = -1;
  std::string output;  // standard output and error together
};

std::string Quote(const std::string& arg) {
  std::string q = "'";
  for (char c : arg) {
    if (c == '\'') {
      q += "'\\''";
    } else {
      q += c;
    }
  }
  return q + "'";
}

// Runs tarncore with the machine root of this test (inherited from the environment).
CliRun Tarncore(const std::vector<std::string>& args) {
  std::string command = Quote(TARN_CLI);
  for (const auto& a : args) command += " " + Quote(a);
  command += " 2>&1";
  CliRun run;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return run;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), pipe)) > 0) run.output.append(buf, n);
  int status = ::pclose(pipe);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

class Cli : public tarn::test::PipelineFixture {};

TEST_F(Cli, CallBuildsAWellFormedRequestAndExitsZeroOnSuccess) {
  std::mutex m;
  std::string headerText;
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest& request,
                        ServerResCallBack* cb, ResponseStatus&) {
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
  Json::Value response = Parse(run.output);
  EXPECT_EQ("0", response["header"]["status_code"].asString());
  EXPECT_EQ(2, response["body"]["x"][1].asInt());

  std::lock_guard lock(m);
  Json::Value header = Parse(headerText);
  for (const auto& key : header.getMemberNames()) {
    EXPECT_TRUE(header[key].isString()) << key;
  }
  EXPECT_EQ("abc", header["client_id"].asString());
  EXPECT_EQ("7", header["custom"].asString());
  EXPECT_EQ("Demo.Echo", header["api_name"].asString());
  EXPECT_EQ("Demo", header["srv_name"].asString());
  for (const char* key : {"version", "app_id", "pkg_name", "sdk_version", "session_id",
                          "transaction_id", "kitSdkVersion", "apiLevel"}) {
    EXPECT_FALSE(header[key].asString().empty()) << key;
  }
  EXPECT_EQ(32u, header["transaction_id"].asString().size());
}

TEST_F(Cli, RefusalsExitOneAndPrintTheResponse) {
  CliRun refused = Tarncore({"call", "Nobody.Home"});
  EXPECT_EQ(1, refused.exitCode) << refused.output;
  EXPECT_NE(std::string::npos, refused.output.find("\"status_code\":\"907135001\""));

  CliRun raw = Tarncore({"send", "--raw", "definitely not json"});
  EXPECT_EQ(1, raw.exitCode) << raw.output;
  EXPECT_NE(std::string::npos, raw.output.find("\"status_code\":\"907135000\""));
  EXPECT_NE(std::string::npos, raw.output.find("data format is error."));
}

TEST_F(Cli, ClientFailuresExitThreeWithTheirCode) {
  CliRun silent = Tarncore({"send", "--raw", "{\"header\":{\"apiLevel\":1}}", "--timeout", "300"});
  EXPECT_EQ(3, silent.exitCode) << silent.output;
  EXPECT_NE(std::string::npos, silent.output.find("9003 Sending Message is TimeOut."));

  CliRun badTimeout = Tarncore({"call", "A.b", "--timeout", "0"});
  EXPECT_EQ(3, badTimeout.exitCode) << badTimeout.output;
  EXPECT_NE(std::string::npos, badTimeout.output.find("9004"));

  ServerManager::GetInstance().ServerUnInit();
  CliRun down = Tarncore({"call", "A.b"});
  EXPECT_EQ(3, down.exitCode) << down.output;
  EXPECT_NE(std::string::npos, down.output.find("9001"));
  CliRun noListen = Tarncore({"listen", "--count", "1"});
  EXPECT_EQ(3, noListen.exitCode) << noListen.output;
}

TEST_F(Cli, UsageErrorsExitTwoAndHelpDocumentsEveryCommand) {
  for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
           {}, {"bogus"}, {"call"}, {"call", "A.b", "--body", "{nope"},
           {"call", "A.b", "--header", "novalue"}, {"send"}, {"listen", "--count", "x"}}) {
    CliRun run = Tarncore(args);
    EXPECT_EQ(2, run.exitCode) << run.output;
  }
  CliRun help = Tarncore({"--help"});
  EXPECT_EQ(0, help.exitCode);
  for (const char* word : {"call URI", "--body", "--header KEY=VALUE", "--timeout", "send --raw",
                           "listen", "--count"}) {
    EXPECT_NE(std::string::npos, help.output.find(word)) << word;
  }
}

TEST_F(Cli, ListenPrintsBroadcastsAsTheyCome) {
  auto listening = std::async(std::launch::async, [] {
    return Tarncore({"listen", "--count", "2", "--timeout", std::to_string(kLong)});
  });
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLong);
  while (g_tarnCoreIpcServer->ConnectionCount() == 0 && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ServerManager::GetInstance().BroadcastMessage("first");
  ServerManager::GetInstance().BroadcastMessage("{\"second\":2}\n");
  CliRun run = listening.get();
  EXPECT_EQ(0, run.exitCode) << run.output;
  EXPECT_EQ("first\n{\"second\":2}\n", run.output);
}

// The real signature check: a signed tarncore passes once its key is trusted;
// this unsigned test program does not.
TEST_F(Cli, SignedClientPassesTheRealSignatureCheck) {
  SignatureVerifyer::SetInstanceForTesting(nullptr);
  std::ifstream key(TARN_DEV_PUBLIC_KEY);
  std::stringstream pub;
  pub << key.rdbuf();
  ASSERT_FALSE(pub.str().empty());
  root_.WriteFile("etc/tarncore/trusted-keys/tarn-dev.pub", pub.str());

  CliRun run = Tarncore({"call", "Demo.Echo"});
  EXPECT_EQ(1, run.exitCode) << run.output;
  EXPECT_NE(std::string::npos, run.output.find("\"status_code\":\"907135001\"")) << run.output;
  EXPECT_EQ(1, gates_.fingerprintCalls.load());

  std::string response;
  ASSERT_EQ(0, Send(5, Request("self"), response));
  EXPECT_EQ("907135004", Parse(response)["header"]["status_code"].asString());
}

}  // namespace

#endif  // TARN_CLI

// The tarncore program against the container's endpoint in this process, and
// its diagnose over a machine root.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <string>

#include "pipeline/pipeline_fakes.h"
#include "platform/security/signature.h"
#include "support/run_program.h"

#ifdef TARN_CLI

namespace {

using tarn::test::ParseJson;

using CliRun = tarn::test::RunResult;

// Runs tarncore with the machine root of this test (inherited from the environment).
CliRun Tarncore(const std::vector<std::string>& args) { return tarn::test::RunProgram(TARN_CLI, args); }

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
      {{"bogus"}, 2, ""}, {{"call", "A.b", "--body", "{nope"}, 2, ""}, {{"call", "A.b", "--header", "novalue"}, 2, ""},
      {{"listen", "--count", "x"}, 2, ""}, {{"diagnose", "--online"}, 2, ""}, {{"--help"}, 0, "call URI"},
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

namespace fs = std::filesystem;

// A machine laid out as the demo's: the build's kits and scope service, the
// demo's remote configuration, the development key trusted as a maker key and
// a policy that knows the CLI by that key.
void InstallHealthyMachine(const tarn::test::TempRoot& root) {
  root.WriteFile(tarn::test::kVtid + "Install_Path", "/opt/tarncore/");  // as the machine sees it, found under the root
  root.WriteFile(tarn::test::kVtid + "Version", "5.3.0");
  for (const char* program : {"TarnCoreContainer", "TarnCoreService"}) {
    root.WriteFile(std::string("opt/tarncore/") + program, "");
  }
  fs::copy(tarn::test::SourceDir() + "/demo/install/config", root.At("opt/tarncore/config"));
  root.MakeDir("opt/tarncore/kits");
  for (const char* package :
       {"com.vantrel.demo", "com.vantrel.demo.lazy", "com.vantrel.sample", "com.vantrel.scopeservice"}) {
    fs::copy(tarn::test::BuildDir() + "/kits/" + package, root.At(std::string("opt/tarncore/kits/") + package));
  }
  const auto key = tarn::security::ReadPublicKeyFile(TARN_DEV_PUBLIC_KEY);
  ASSERT_TRUE(key);
  root.WriteFile("etc/tarncore/trusted-keys/maker/tarn-dev.pub", tarn::security::KeyToHex(*key));
  root.WriteFile("etc/tarncore/scope-policy.json",
                 R"({"clients": {"tarncore-cli": {"fingerprints": [")" + tarn::security::Fingerprint(*key) +
                     R"("], "permissions": ["demo.broadcast"]}}})");
}

// Each fault a kit author meets, one package apiece beside the healthy ones,
// named with its cause on an ERROR line that says what to do.
TEST(CliDiagnose, AHealthyMachinePassesAndEachFaultIsNamedWithItsCause) {
  tarn::test::TempRoot root;
  InstallHealthyMachine(root);
  CliRun healthy = Tarncore({"diagnose", "--offline"});
  EXPECT_EQ(0, healthy.exitCode) << healthy.output;
  EXPECT_FALSE(healthy.Has("ERROR")) << healthy.output;
  EXPECT_TRUE(healthy.Has("package com.vantrel.demo: library libtarn_demo_kit.so is signed by maker key maker/tarn-dev.pub"))
      << healthy.output;

  const std::string kits = root.At("opt/tarncore/kits/");
  auto copyDemo = [&](const std::string& package) {
    fs::copy(kits + "com.vantrel.demo", kits + package);
    return kits + package + "/";
  };
  const std::string digest = copyDemo("com.bad.digest");
  std::ofstream(digest + "kitManifest.json", std::ios::app) << "\n";
  const std::string unsigned_ = copyDemo("com.bad.unsigned") + "libtarn_demo_kit.so";
  fs::resize_file(unsigned_, fs::file_size(unsigned_) - tarn::security::kTrailerSize);
  auto stranger = tarn::security::SigningKey::Generate();
  ASSERT_TRUE(stranger && tarn::security::SignFile(copyDemo("com.bad.untrusted") + "libtarn_demo_kit.so", *stranger));
  root.WriteFile("opt/tarncore/kits/com.bad.manifest/kitManifest.json", "{ \"kits\": [ }");
  fs::copy(tarn::test::BuildDir() + "/tests/kit/kits/com.test.noentry", kits + "com.test.noentry");
  root.WriteFile("etc/tarncore/scope-policy.json", "{ \"clients\": [ }");
  // A refresh cached a copy that lists them all and ends in a value of the wrong type.
  std::string cached = root.ReadFile("opt/tarncore/config/remoteConfig.json");
  std::string added;
  for (const char* package : {"com.bad.digest", "com.bad.unsigned", "com.bad.untrusted", "com.bad.manifest"}) {
    added += std::string(R"(,{"packageName": ")") + package + R"(", "subKits": [{"kitName": "Demo"}]})";
  }
  added += R"(,{"packageName": "com.test.noentry", "subKits": [{"kitName": "NoEntry"}]}, {"packageName": {"x": 1}})";
  cached.insert(cached.rfind(']'), added);  // the end of packageInfo
  root.WriteFile("opt/tarncore/config/cache/remoteConfig.json", cached);

  CliRun faulty = Tarncore({"diagnose", "--offline"});
  EXPECT_EQ(1, faulty.exitCode) << faulty.output;
  const std::pair<std::string, std::string> expected[] = {
      {"package com.bad.digest", "differs from the SHA-256 of kitManifest.json"},
      {"package com.bad.unsigned", "libtarn_demo_kit.so carries no signature"},
      {"package com.bad.untrusted", "which this machine doesn't trust"},
      {"package com.test.noentry", "doesn't export the entry function \"Init\" of kit \"NoEntry\""},
      {"package com.bad.manifest", "kitManifest.json isn't valid JSON"},
      {"scope policy", "isn't a policy"},
      {"remote configuration",
       root.At("opt/tarncore/config/cache/remoteConfig.json") + " has a value of the wrong JSON type in packageInfo[9]"},
  };
  std::istringstream lines(faulty.output);
  std::vector<std::string> errors;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("ERROR", 0) == 0) errors.push_back(line);
  }
  EXPECT_EQ(std::size(expected), errors.size()) << faulty.output;
  for (const auto& [subject, cause] : expected) {
    EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [&](const std::string& line) {
      return line.find(subject + ": ") != std::string::npos && line.find(cause) != std::string::npos &&
             line.find(" Fix: ") != std::string::npos;
    })) << subject << " / " << cause << "\n" << faulty.output;
  }
}

}  // namespace

#endif  // TARN_CLI

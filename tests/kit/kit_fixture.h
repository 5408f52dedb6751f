#pragma once
// A machine under a temporary root with an install folder, the test kits
// copied into it as the build laid them out, the build's signing key trusted,
// and the kit runtime's singletons fresh. KitRequestFixture adds the
// container's endpoint with gates that lead to the kit manager, so requests
// travel through a real socket.
#include <gtest/gtest.h>
#include <json/value.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "ipc/ipc_test_util.h"
#include "kit/KitManagerApi.h"
#include "kit/KitRuntimeHooks.h"
#include "kit/LoadManger.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/ipc/ipc_client.h"
#include "platform/ipc/signature_manager.h"
#include "platform/log/log_capture.h"
#include "platform/security/signature.h"
#include "support/temp_root.h"
#include "thread/ThreadManager.h"

namespace tarn::test {

constexpr int kLong = 10000;  // ms: an upper bound for liveness only

inline bool Eventually(const std::function<bool()>& done) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLong);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

inline Json::Value ParseJson(const std::string& text) {
  Json::Value root;
  EXPECT_TRUE(ConnectManager::Parse(text.data(), text.data() + text.size(), root)) << text;
  return root;
}

class CountingServiceControl : public tarn::config::ServiceControl {
 public:
  void StopTarnCoreService() override { ++stops; }
  std::atomic<int> stops{0};
};

// The update state and a built-in framework kit with one api, "Framework.Ping".
class TestHooks : public tarn::kit::KitRuntimeHooks {
 public:
  bool IsUpdating() override { return updating; }
  bool HasNewVersion() override { return newVersion; }
  void RegisterFrameworkHandlers() override {
    ++registrations;
    auto api = std::make_shared<KitApiDetailInfo>();
    api->uri = api->apiName = "Framework.Ping";
    api->apiLevel = "1";
    api->kitName = api->invokeType = "FRAMEWORK";
    api->packageName = "com.vantrel.framework";
    ConfigManager::GetInstance().kitApiDispathMap[api->uri] = api;
  }
  bool FrameworkInvoke(const std::string& uri, ServerResCallBack* item, ConvertedRequest&,
                       ResponseStatus&) override {
    ++frameworkCalls;
    std::string answer = "{\"pong\":\"" + uri + "\"}";
    item->Excute(answer);
    return true;
  }

  std::atomic<bool> updating{false}, newVersion{false};
  std::atomic<int> registrations{0}, frameworkCalls{0};
};

struct Package {
  std::string name;
  std::string kitName;
  std::string forceUpdate = "0";
};

class KitFixture : public ::testing::Test {
 protected:
  static constexpr const char* kInstalledVersion = "5.0.0.1";

  void SetUp() override {
    config.ResetForTesting();
    loader.ResetForTesting();
    manager.ResetForTesting();
    root.MakeDir(kInstall);
    root.WriteFile("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/Version",
                   kInstalledVersion);
    install = root.At(kInstall) + "/";
    tarn::config::SetInstallDirectoryForTesting(install);
    tarn::config::SetServiceControlForTesting(&service);
    tarn::kit::SetKitRuntimeHooks(&hooks);
    auto key = tarn::security::ReadPublicKeyFile(TARN_DEV_PUBLIC_KEY);
    ASSERT_TRUE(key.has_value());
    ASSERT_TRUE(tarn::security::InstallTrustedKey(*key, tarn::security::KeyKind::kMaker, "tarn-dev"));
  }

  void TearDown() override {
    tarn::kit::SetKitRuntimeHooks(nullptr);
    tarn::config::SetServiceControlForTesting(nullptr);
    tarn::config::SetInstallDirectoryForTesting("");
    loader.ResetForTesting();
    manager.ResetForTesting();
    config.ResetForTesting();
  }

  std::string KitDir(const std::string& package) const { return install + "kits/" + package + "/"; }

  // Copies a kit as the build laid it out into the install folder.
  void InstallKit(const std::string& package) {
    namespace fs = std::filesystem;
    fs::create_directories(KitDir(package));
    fs::copy(fs::path(TARN_TEST_KITS_DIR) / package, KitDir(package),
             fs::copy_options::overwrite_existing | fs::copy_options::recursive);
  }

  static void AppendTo(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
  }

  void WriteRemoteConfig(const std::vector<Package>& packages) {
    std::string text;
    for (const Package& p : packages) {
      text += std::string(text.empty() ? "" : ",") + "{\"packageName\":\"" + p.name +
              "\",\"forceUpdate\":\"" + p.forceUpdate + "\",\"invalidVersionCode\":[\"" +
              kInstalledVersion + "\"],\"subKits\":[{\"kitName\":\"" + p.kitName + "\"}]}";
    }
    root.WriteFile(kInstall + "/config/remoteConfig.json", "{\"packageInfo\":[" + text + "]}");
  }

  // Installs the kits and names them in the remote configuration.
  void Setup(const std::vector<Package>& packages) {
    for (const Package& p : packages) InstallKit(p.name);
    WriteRemoteConfig(packages);
  }

  static Package Main(const std::string& forceUpdate = "0") { return {"com.test.main", "Main", forceUpdate}; }
  static Package Lazy() { return {"com.test.lazy", "Lazy"}; }

  // How often a line with this text was logged.
  std::size_t Lines(std::string_view part) const { return log.CountContaining(part); }

  const std::string kInstall = "opt/tarncore";
  TempRoot root;
  std::string install;
  tarn::log::LogCapture log;
  CountingServiceControl service;
  TestHooks hooks;
  ConfigManager& config = ConfigManager::GetInstance();
  LoadManger& loader = LoadManger::GetInstance();
  KitManagerApi& manager = KitManagerApi::GetInstance();
};

// The pipeline's seam as the container fills it for the kit manager.
class KitGates : public DefaultRequestGates {
 public:
  bool IsInitComplete() override { return KitManagerApi::GetInstance().isInitComplete; }
  void Invoke(const RequestHeader& header, const ConvertedRequest& request, ServerResCallBack* callback,
              ResponseStatus& status) override {
    RequestHeader ownHeader = header;
    ConvertedRequest ownRequest = request;
    KitManagerApi::GetInstance().Invoke(ownHeader, ownRequest, callback, status);
  }
};

class KitRequestFixture : public KitFixture {
 protected:
  void SetUp() override {
    KitFixture::SetUp();
    RequestGates::Install(&gates);
    SignatureManager::GetInstance()->Clear();
    // A caller already verified: the whitelist lets it through the pipeline's gates.
    SignatureManager::GetInstance()->AddSignatureWhiteList(static_cast<uint32_t>(::getpid()), kClient);
    ServerManager::GetInstance().ServerInit();
    ASSERT_NE(nullptr, g_tarnCoreIpcServer);
  }
  void TearDown() override {
    ServerManager::GetInstance().ServerUnInit();
    RequestGates::Install(nullptr);
    SignatureManager::GetInstance()->Clear();
    KitFixture::TearDown();
  }

  static std::string Request(const std::string& uri, const std::string& body = "{}",
                             const std::string& sdkVersion = "5.3.0.300", const std::string& apiLevel = "1") {
    return "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"" + uri.substr(0, uri.find('.')) +
           "\",\"api_name\":\"" + uri + "\",\"app_id\":\"app\",\"pkg_name\":\"pkg\",\"sdk_version\":\"" +
           sdkVersion + "\",\"session_id\":\"s1\",\"transaction_id\":\"t1\",\"kitSdkVersion\":\"1\","
           "\"apiLevel\":\"" + apiLevel + "\",\"client_id\":\"" + kClient + "\"},\"body\":" + body + "}";
  }

  // Sends a request and waits for its answer; 0 or the client library's code.
  int Send(int32_t id, const std::string& text, std::string& response, int timeoutMs = kLong) {
    return SendRequest(client, id, text, response, timeoutMs);
  }

  // The answer's header.status_code, or the client code when none came.
  std::string StatusOf(int32_t id, const std::string& text, Json::Value* answer = nullptr) {
    std::string response;
    if (int code = Send(id, text, response)) return "client " + std::to_string(code);
    Json::Value root = ParseJson(response);
    if (answer) *answer = root;
    return root["header"]["status_code"].asString();
  }

  static constexpr const char* kClient = "c1";
  KitGates gates;
  TarnCoreIPCMessageClient client{IpcAddressClientSide, false, true};
};

}  // namespace tarn::test

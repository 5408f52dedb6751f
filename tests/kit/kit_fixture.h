#pragma once
// A machine under a temporary root with an install folder, the test kits
// copied into it as the build laid them out, the build's signing key trusted,
// and the kit runtime's singletons fresh. KitRequestFixture adds the
// container's endpoint with the container's gates.
#include <gtest/gtest.h>
#include <json/value.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "access/scope_proxy.h"
#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "config/config_fixture.h"
#include "container/ContainerRequestGates.h"
#include "framework/FrameworkKitAPI.h"
#include "kit/KitManagerApi.h"
#include "kit/KitRuntimeHooks.h"
#include "kit/LoadManger.h"
#include "pipeline/pipeline_fakes.h"
#include "platform/security/signature.h"
#include "thread/ThreadManager.h"

namespace tarn::test {

// The framework kit as the container has it, with the update state set by the test.
class TestHooks : public tarn::framework::FrameworkKitHooks {
 public:
  bool IsUpdating() override { return updating; }
  bool HasNewVersion() override { return newVersion; }
  std::atomic<bool> updating{false}, newVersion{false};
};

struct Package {
  std::string name;
  std::string kitName;
  std::string forceUpdate = "0";
};

class KitFixture : public EndpointTest {
 protected:
  static constexpr const char* kInstalledVersion = "5.0.0.1";

  void SetUp() override {
    config.ResetForTesting();
    loader.ResetForTesting();
    manager.ResetForTesting();
    root_.WriteFile(kVtid + "Version", kInstalledVersion);
    root_.MakeDir("opt/tarncore");
    install = root_.At("opt/tarncore") + "/";
    tarn::config::SetInstallDirectoryForTesting(install);
    tarn::config::SetServiceControlForTesting(&service);
    tarn::kit::SetKitRuntimeHooks(&hooks);
    auto key = tarn::security::ReadPublicKeyFile(TARN_DEV_PUBLIC_KEY);
    ASSERT_TRUE(key.has_value());
    ASSERT_TRUE(tarn::security::InstallTrustedKey(*key, tarn::security::KeyKind::kMaker, "tarn-dev"));
  }
  void TearDown() override {
    EndpointTest::TearDown();
    tarn::kit::SetKitRuntimeHooks(nullptr);
    FrameworkKitAPI::GetInstance().ClearForTesting();
    tarn::config::SetServiceControlForTesting(nullptr);
    tarn::config::SetInstallDirectoryForTesting("");
    loader.ResetForTesting();
    manager.ResetForTesting();
    config.ResetForTesting();
  }

  std::string KitDir(const std::string& package) const { return install + "kits/" + package + "/"; }

  // Copies a kit as the build laid it out into the install folder.
  void InstallKit(const std::string& package) {
    std::filesystem::create_directories(KitDir(package));
    std::filesystem::copy(std::filesystem::path(TARN_TEST_KITS_DIR) / package, KitDir(package),
                          std::filesystem::copy_options::overwrite_existing | std::filesystem::copy_options::recursive);
  }
  static void AppendTo(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
  }

  void WriteRemoteConfig(const std::vector<Package>& packages) {
    std::string text;
    for (const Package& p : packages) {
      text += std::string(text.empty() ? "" : ",") + "{\"packageName\":\"" + p.name + "\",\"forceUpdate\":\"" +
              p.forceUpdate + "\",\"invalidVersionCode\":[\"" + kInstalledVersion +
              "\"],\"subKits\":[{\"kitName\":\"" + p.kitName + "\"}]}";
    }
    root_.WriteFile("opt/tarncore/config/remoteConfig.json", "{\"packageInfo\":[" + text + "]}");
  }
  // Installs the kits and names them in the remote configuration.
  void Setup(const std::vector<Package>& packages) {
    for (const Package& p : packages) InstallKit(p.name);
    WriteRemoteConfig(packages);
  }
  static Package Main(const std::string& forceUpdate = "0") { return {"com.test.main", "Main", forceUpdate}; }
  static Package Lazy() { return {"com.test.lazy", "Lazy"}; }

  // How often a line with this text was logged.
  std::size_t Lines(std::string_view part) const { return logs_.CountContaining(part); }

  std::string install;
  CountingServiceControl service;
  TestHooks hooks;
  ConfigManager& config = ConfigManager::GetInstance();
  LoadManger& loader = LoadManger::GetInstance();
  KitManagerApi& manager = KitManagerApi::GetInstance();
};

// Requests travel from a client through a real socket and the container's own
// gates to the kits. The caller "c1" is already verified, so the whitelist lets
// it through; there is no scope service, so any other caller is refused.
class KitRequestFixture : public KitFixture {
 protected:
  void SetUp() override {
    KitFixture::SetUp();
    ScopeProxy::SetInstanceForTesting(&scope);
    StartEndpoint(&gates);
    SignatureManager::GetInstance()->AddSignatureWhiteList(static_cast<uint32_t>(::getpid()), "c1");
  }
  void TearDown() override {
    KitFixture::TearDown();
    ScopeProxy::SetInstanceForTesting(nullptr);
  }
  static ScopeProxy::Platform NoScopeService() {
    ScopeProxy::Platform platform = ScopeProxy::Platform::Default();
    platform.initServiceManager = [] {};
    platform.createInstance = [](const std::string&, const std::string&, std::shared_ptr<tarn::zbrf::ZObject>&) {
      return false;
    };
    return platform;
  }
  ScopeProxy scope{NoScopeService()};
  ContainerRequestGates gates;
};

}  // namespace tarn::test

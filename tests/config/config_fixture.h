#pragma once
// A fresh ConfigManager over a throw-away machine root with its own install
// directory, a service stop that is only counted and a recording registrar.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/ConfigManager.h"
#include "config/ConfigPlatform.h"
#include "platform/log/log_capture.h"
#include "support/temp_root.h"

namespace tarn::test {

class CountingServiceControl : public tarn::config::ServiceControl {
 public:
  void StopTarnCoreService() override { ++stops; }
  int stops = 0;
};

class RecordingRegistrar : public tarn::config::ServiceInfoRegistrar {
 public:
  bool RegisterServiceInfo(const std::string& path) override {
    paths.push_back(path);
    return answer;
  }
  std::vector<std::string> paths;
  bool answer = true;
};

class ConfigFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    cm.ResetForTesting();
    root.MakeDir(kInstall);
    root.MakeDir(kVtid);
    install = root.At(kInstall) + "/";
    tarn::config::SetInstallDirectoryForTesting(install);
    tarn::config::SetServiceControlForTesting(&service);
    tarn::config::SetServiceInfoRegistrar(&registrar);
  }
  void TearDown() override {
    tarn::config::SetServiceInfoRegistrar(nullptr);
    tarn::config::SetServiceControlForTesting(nullptr);
    tarn::config::SetInstallDirectoryForTesting("");
    cm.ResetForTesting();
  }

  void WriteInstalled(const std::string& text) { root.WriteFile(kInstall + "/config/remoteConfig.json", text); }
  void WriteCached(const std::string& text) { root.WriteFile(kInstall + "/config/cache/remoteConfig.json", text); }
  void WriteManifest(const std::string& package, const std::string& text) {
    root.WriteFile(kInstall + "/kits/" + package + "/kitManifest.json", text);
  }
  std::string ManifestPath(const std::string& package) const {
    return install + "kits/" + package + "/kitManifest.json";
  }
  void SetVersion(const std::string& version) { root.WriteFile(kVtid + "Version", version); }

  // The remote configuration's entry for one package with one kit.
  static std::string OnePackage(const std::string& package, const std::string& kit) {
    return R"({"packageInfo":[{"packageName":")" + package + R"(","subKits":[{"kitName":")" + kit + R"("}]}]})";
  }

  std::vector<std::string> Errors() const {
    std::vector<std::string> out;
    for (const auto& r : log.Records()) {
      if (r.level == tarn::log::Level::Error) out.push_back(r.text);
    }
    return out;
  }

  const std::string kInstall = "opt/tarncore";
  TempRoot root;
  std::string install;
  CountingServiceControl service;
  RecordingRegistrar registrar;
  tarn::log::LogCapture log;
  ConfigManager& cm = ConfigManager::GetInstance();
};

}  // namespace tarn::test

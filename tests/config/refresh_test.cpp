// The refresh of the remote configuration: the worker's timing, the fetch and
// its comparison with the cached copy, and what is applied afterwards.
#include <gtest/gtest.h>

#include <deque>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "config/ConfigRefresh.h"
#include "config_fixture.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "thread/ThreadManager.h"

using tarn::log::Level;

namespace {

constexpr const char* kBase = "https://config.example.test";

// Answers GETs from a script; every url asked for is kept.
class ScriptedHttp : public tarn::http::HttpClient {
 public:
  bool Get(const std::string& url, tarn::http::HttpResponse& response, std::uint32_t) override {
    urls.push_back(url);
    if (answers.empty()) return false;
    auto [status, body] = answers.front();
    answers.pop_front();
    response.status = status;
    response.body = body;
    return status == 200;
  }
  bool Post(const std::string&, const std::string&, const std::string&, tarn::http::HttpResponse&,
            std::uint32_t) override {
    return false;
  }
  bool Download(const std::string&, const std::string&, tarn::http::HttpResponse&, std::uint32_t) override {
    return false;
  }
  std::deque<std::pair<long, std::string>> answers;
  std::vector<std::string> urls;
};

class Refresh : public tarn::test::ConfigFixture {
 protected:
  void SetUp() override {
    ConfigFixture::SetUp();
    tarn::http::SetHttpClientForTesting(&http);
    root.WriteFile("opt/tarncore/config/service_urls.json",
                   std::string(R"({"com.vantrel.configserver": {"ROOT": ")") + kBase + R"("}})");
    UrlLoader::SetAddressBookPath(install + "config/service_urls.json");
    tarn::config::SetRefreshKitHooks({[this](const std::string& p) { return loaded.count(p) > 0; },
                                      [this](const std::string& p) {
                                        loads.push_back(p);
                                        return true;
                                      },
                                      [this] { return hasScope; }, [this] { return ++scopeCreated > 0; }});
  }
  void TearDown() override {
    tarn::config::SetRefreshKitHooks({});
    tarn::config::SetRefreshWaitForTesting({});
    UrlLoader::SetAddressBookPath("");
    tarn::http::SetHttpClientForTesting(nullptr);
    ConfigFixture::TearDown();
  }

  std::string Cached() const {
    std::ifstream in(install + "config/cache/remoteConfig.json", std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  ScriptedHttp http;
  std::set<std::string> loaded;
  std::vector<std::string> loads;
  bool hasScope = true;
  int scopeCreated = 0;
};

TEST_F(Refresh, NewCopyIsAppliedAndListedKitsLoaded) {
  http.answers.push_back({503, "busy"});
  EXPECT_FALSE(cm.GetConfigFromCloud());
  EXPECT_TRUE(log.Has(Level::Error, "Download remoteconfig failed. ret = 503(ConfigManager::DownloadConfigFile)"));
  EXPECT_EQ(http.urls.at(0),
            std::string(kBase) + "/servicesupport/updateserver/data/com.vantrel.tarncore_framework_kitconfig?DT=20");

  SetVersion("5.0");
  for (std::string kit : {"Zero", "One", "Two", "Done"}) {
    WriteManifest("com." + kit, R"({"kits":[{"kitName":")" + kit + R"(","apiLevel":"1","apis":[{"apiName":"Request"}]}]})");
  }
  WriteInstalled(OnePackage("com.Done", "Done"));
  ASSERT_TRUE(cm.Init());
  loaded = {"com.Done"};
  hasScope = false;

  http.answers.push_back({200, R"({"packageInfo":[
    {"packageName":"com.One","forceUpdate":"1","invalidVersionCode":["5.0"],"subKits":[{"kitName":"One"}]},
    {"packageName":"com.Two","forceUpdate":"2","invalidVersionCode":["5.0"],"subKits":[{"kitName":"Two"}]},
    {"packageName":"com.Zero","subKits":[{"kitName":"Zero"}]},
    {"packageName":"com.Done","subKits":[{"kitName":"Done"}]}]})"});
  log.Clear();
  EXPECT_TRUE(cm.GetConfigFromCloud());
  EXPECT_EQ(loads, (std::vector<std::string>{"com.Two", "com.Zero"}));
  EXPECT_EQ(scopeCreated, 1);
  EXPECT_EQ(cm.kitApiDispathMap.count("Zero.Request"), 1u);
  EXPECT_TRUE(log.Has(Level::Info, "Load remoteconfig complete, update kit and init ScopeService.(ConfigManager::GetConfigFromCloud)"));

  // The same text again: nothing is written, read or loaded.
  loads.clear();
  http.answers.push_back({200, Cached()});
  log.Clear();
  EXPECT_TRUE(cm.GetConfigFromCloud());
  EXPECT_TRUE(loads.empty());
  EXPECT_FALSE(log.Contains("The current x64 TARNCORE version"));  // not read again

  // A body that isn't JSON is saved; the installed copy is read instead and
  // its kits are loaded.
  loaded.clear();
  http.answers.push_back({200, "<html>maintenance</html>"});
  EXPECT_TRUE(cm.GetConfigFromCloud());
  EXPECT_EQ(Cached(), "<html>maintenance</html>");
  EXPECT_EQ(loads, (std::vector<std::string>{"com.Done"}));
  EXPECT_EQ(service.stops, 0);

  // With no installed copy either, the service stops and nothing is applied;
  // the fetch itself worked.
  ::unlink((install + "config/remoteConfig.json").c_str());
  loads.clear();
  http.answers.push_back({200, "still not json"});
  EXPECT_TRUE(cm.GetConfigFromCloud());
  EXPECT_EQ(service.stops, 1);
  EXPECT_TRUE(loads.empty());
}

// The worker, run on the test's thread, with a wait that plays a script.
TEST_F(Refresh, WorkerFetchesAfterAMinuteThenDailyAndOwesAFailedFirstFetch) {
  cm.configEvent = tarn::os::Event::Create(false, false);
  std::vector<std::uint32_t> waits;
  std::deque<std::uint32_t> results;
  std::vector<bool> checkDoneBeforeWait;
  const std::thread::id testThread = std::this_thread::get_id();
  tarn::config::SetRefreshWaitForTesting([&](const std::vector<tarn::os::Waitable*>& handles, std::uint32_t timeout) {
    if (std::this_thread::get_id() != testThread) return tarn::os::WaitForAny(handles, timeout);
    EXPECT_EQ(handles.at(1), cm.configEvent.get());
    waits.push_back(timeout);
    checkDoneBeforeWait.push_back(cm.configCheckDone);
    const std::uint32_t r = results.front();
    results.pop_front();
    if (r == tarn::os::kWaitObject0 + 1) cm.configCheckDone = true;  // as the network's coming up does
    return r;
  });
  g_timePeriodOneday = 120000;
  // No network at start; the connect's fetch fails too, and that one is not owed again.
  results = {tarn::os::kWaitTimeout, tarn::os::kWaitObject0 + 1, tarn::os::kWaitFailed, tarn::os::kWaitObject0};
  VantrelThread::ThreadParam param(nullptr, "ConfigManager::WorkerThread");
  EXPECT_EQ(ConfigManager::WorkerThread(&param), 0u);

  EXPECT_EQ(waits, (std::vector<std::uint32_t>{60000, 120000, 120000, 120000}));
  EXPECT_EQ(checkDoneBeforeWait, (std::vector<bool>{true, false, true, true}));
  EXPECT_EQ(http.urls.size(), 3u);  // the exit result fetches nothing
  EXPECT_TRUE(cm.configCheckDone);
  EXPECT_TRUE(log.Has(Level::Info, "ConfigManager WorkerThread start.(ConfigManager::WorkerThread)"));
  EXPECT_TRUE(log.Has(Level::Info, "RemoteConfig param WorkerThread Try to get remote config from cloud. "
                                   "g_forceUpdateTimeperiod = 60000(ConfigManager::WorkerThread)"));
  EXPECT_TRUE(log.Has(Level::Info, "ConfigManager WorkerThread end.(ConfigManager::WorkerThread)"));
}

}  // namespace

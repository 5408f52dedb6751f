// The refresh of the remote configuration: the worker's timing, the fetch and
// its comparison with the cached copy, and what is applied afterwards.
#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <set>
#include <thread>
#include <fstream>
#include <future>
#include <sstream>

#include "config/ConfigRefresh.h"
#include "config_fixture.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "thread/ThreadManager.h"

using tarn::log::Level;

namespace {

constexpr const char* kBase = "https://config.example.test";
constexpr const char* kManifest = R"({"version": "1.0", "fileName": "lib%s.so",
  "kits": [ { "kitName": "%s", "apiLevel": "1", "apis": [ { "apiName": "Request" } ] } ] })";

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

  void Kit(const std::string& package, const std::string& kit) {
    char text[512];
    std::snprintf(text, sizeof(text), kManifest, kit.c_str(), kit.c_str());
    WriteManifest(package, text);
  }
  std::string Cached() const {
    std::ifstream in(install + "config/cache/remoteConfig.json", std::ios::binary);
    if (!in) return "<none>";
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

TEST_F(Refresh, CachedCopyDecidesWhatIsNew) {
  const std::string cached = "{\n  \"a\": 1,\n  \"b\": 2\n}\n";
  struct Case {
    const char* what;
    const char* cache;  // nullptr: no cached copy
    std::string body;
    int result;
  } cases[] = {
      {"identical", cached.c_str(), cached, tarn::config::kDownloadSame},
      {"last line differs", cached.c_str(), "{\n  \"a\": 1,\n  \"b\": 2\n]\n", tarn::config::kDownloadSaved},
      {"one line longer", cached.c_str(), cached + "x\n", tarn::config::kDownloadSaved},
      {"final line feed missing", cached.c_str(), cached.substr(0, cached.size() - 1), tarn::config::kDownloadSaved},
      {"empty body", cached.c_str(), "", tarn::config::kDownloadSaved},
      {"first run", nullptr, cached, tarn::config::kDownloadSaved},
  };
  for (const auto& c : cases) {
    std::filesystem::remove_all(install + "config/cache");
    if (c.cache) WriteCached(c.cache);
    http.answers.push_back({200, c.body});
    log.Clear();
    EXPECT_EQ(cm.DownloadConfigFile(), c.result) << c.what;
    EXPECT_EQ(Cached(), c.result == tarn::config::kDownloadSame ? std::string(c.cache) : c.body) << c.what;
    if (!c.cache) {
      EXPECT_TRUE(log.Contains("Failed Open config = " + install + "config/cache/remoteConfig.json error = 2"));
      EXPECT_TRUE(log.Has(Level::Info, "Folder not exist, create folder = " + install +
                                           "config/cache(ConfigManager::DownloadConfigFile)"));
    }
  }
  EXPECT_EQ(http.urls.at(0),
            std::string(kBase) + "/servicesupport/updateserver/data/com.vantrel.tarncore_framework_kitconfig?DT=20");
}

TEST_F(Refresh, FailuresOfTheRequestAndOfTheCache) {
  http.answers.push_back({503, "busy"});
  EXPECT_FALSE(cm.GetConfigFromCloud());
  EXPECT_TRUE(log.Has(Level::Error, "Download remoteconfig failed. ret = 503(ConfigManager::DownloadConfigFile)"));

  // config/ is the installation's: only the last level is made.
  std::filesystem::remove_all(install + "config");
  http.answers.push_back({200, "{}"});
  EXPECT_EQ(cm.DownloadConfigFile(), tarn::config::kDownloadFailed);
  EXPECT_TRUE(log.Has(Level::Error, "Folder not exist, but create folder error = 2(ConfigManager::DownloadConfigFile)"));
}

TEST_F(Refresh, NewCopyIsAppliedAndListedKitsLoaded) {
  SetVersion("5.0");
  for (const char* kit : {"Zero", "One", "Two", "Done"}) Kit(std::string("com.") + kit, kit);
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

TEST_F(Refresh, InitStartsTheWorkerWhoseFirstWaitIsAMinute) {
  std::promise<std::uint32_t> firstWait;
  std::atomic<bool> told{false};
  tarn::config::SetRefreshWaitForTesting([&](const std::vector<tarn::os::Waitable*>& handles, std::uint32_t timeout) {
    // Workers of earlier tests wait on their own events.
    if (handles.at(1) != cm.configEvent.get()) return tarn::os::WaitForAny(handles, timeout);
    if (!told.exchange(true)) firstWait.set_value(timeout);
    return tarn::os::kWaitObject0;  // the process exit: the worker leaves
  });
  EXPECT_FALSE(cm.Init());  // no configuration: the worker runs all the same
  auto future = firstWait.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(future.get(), 60000u);
  EXPECT_TRUE(http.urls.empty());
}

}  // namespace

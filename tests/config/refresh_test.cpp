// The refresh of the remote configuration: the worker's timing, the fetch from
// the reference cloud and its comparison with the cached copy, and what is
// applied afterwards.
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <set>
#include <thread>

#include "config/ConfigRefresh.h"
#include "config_fixture.h"
#include "integration/programs.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "thread/ThreadManager.h"

using tarn::log::Level;
using tarn::test::CountText;

namespace {

constexpr const char* kConfigRequest =
    "GET /servicesupport/updateserver/data/com.vantrel.tarncore_framework_kitconfig?DT=20";

// The fetch goes through libcurl to the reference cloud.
class Refresh : public tarn::test::ConfigFixture {
 protected:
  void SetUp() override {
    ConfigFixture::SetUp();
    ASSERT_TRUE(HttpUtil::Https_curl_global_init());
    cloud = std::make_unique<tarn::test::Cloud>(root, install + "config/service_urls.json");
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
    cloud.reset();
    HttpUtil::Https_curl_global_free();
    ConfigFixture::TearDown();
  }

  std::string RequestLog() const { return root.At("cloud/received/requests.log"); }
  std::string Cached() const { return root.ReadFile(kInstall + "/config/cache/remoteConfig.json"); }

  std::unique_ptr<tarn::test::Cloud> cloud;
  std::set<std::string> loaded;
  std::vector<std::string> loads;
  bool hasScope = true;
  int scopeCreated = 0;
};

TEST_F(Refresh, CloudCopyIsSavedAndAppliedUnlessItEqualsTheCachedOne) {
  // The cloud has nothing to serve yet.
  EXPECT_FALSE(cm.GetConfigFromCloud());
  EXPECT_TRUE(log.Has(Level::Error, "Download remoteconfig failed. ret = 404(ConfigManager::DownloadConfigFile)"));
  EXPECT_EQ(CountText(RequestLog(), std::string(kConfigRequest) + " 404"), 1);

  SetVersion("5.0");
  for (std::string kit : {"Zero", "One", "Two", "Done"}) {
    WriteManifest("com." + kit, R"({"kits":[{"kitName":")" + kit + R"(","apiLevel":"1","apis":[{"apiName":"Request"}]}]})");
  }
  WriteInstalled(OnePackage("com.Done", "Done"));
  ASSERT_TRUE(cm.Init());
  loaded = {"com.Done"};
  hasScope = false;

  const std::string fresh = R"({"packageInfo":[
    {"packageName":"com.One","forceUpdate":"1","invalidVersionCode":["5.0"],"subKits":[{"kitName":"One"}]},
    {"packageName":"com.Two","forceUpdate":"2","invalidVersionCode":["5.0"],"subKits":[{"kitName":"Two"}]},
    {"packageName":"com.Zero","subKits":[{"kitName":"Zero"}]},
    {"packageName":"com.Done","subKits":[{"kitName":"Done"}]}]})";
  cloud->Serve("remoteConfig.json", fresh);
  log.Clear();
  EXPECT_TRUE(cm.GetConfigFromCloud());
  // The body, then the response's header lines as they came.
  EXPECT_EQ(log.CountContaining("strResp : " + fresh + "strHeader : HTTP/1.1 200 OK\r\n"), 1u);
  EXPECT_EQ(log.CountContaining("\r\nETag: \""), 1u);
  EXPECT_EQ(Cached(), fresh);
  EXPECT_EQ(loads, (std::vector<std::string>{"com.Two", "com.Zero"}));
  EXPECT_EQ(scopeCreated, 1);
  EXPECT_EQ(cm.kitApiDispathMap.count("Zero.Request"), 1u);
  EXPECT_TRUE(log.Has(Level::Info, "Load remoteconfig complete, update kit and init ScopeService.(ConfigManager::GetConfigFromCloud)"));

  // A body that isn't JSON is saved; the installed copy is read instead and
  // its kits are loaded.
  loaded.clear();
  loads.clear();
  cloud->Serve("remoteConfig.json", "<html>maintenance</html>");
  EXPECT_TRUE(cm.GetConfigFromCloud());
  EXPECT_EQ(Cached(), "<html>maintenance</html>");
  EXPECT_EQ(loads, (std::vector<std::string>{"com.Done"}));
  EXPECT_EQ(service.stops, 0);

  // With no installed copy either, the service stops and nothing is applied;
  // the fetch itself worked.
  ::unlink((install + "config/remoteConfig.json").c_str());
  loads.clear();
  cloud->Serve("remoteConfig.json", "still not json");
  EXPECT_TRUE(cm.GetConfigFromCloud());
  EXPECT_EQ(service.stops, 1);
  EXPECT_TRUE(loads.empty());
}

// The body against the cached copy, line by line: only the same lines in the
// same number are the same, and only those are neither written nor read.
TEST_F(Refresh, BodyIsSavedAndReadUnlessItHasTheCachedCopysLines) {
  const std::string cache = install + "config/cache/remoteConfig.json";
  const struct {
    const char *cached, *body;  // cached nullptr: none yet
  } cases[] = {{nullptr, "{}"}, {"{\n1\n}\n", "{\n1\n}\n"}, {"{\n1\n}", "{\n2\n}"}, {"{\n1\n}", "{\n1\n}\n\n"}, {"{}", ""}};
  for (const auto& c : cases) {
    ::unlink(cache.c_str());
    if (c.cached) WriteCached(c.cached);
    cloud->Serve("remoteConfig.json", c.body);
    log.Clear();
    EXPECT_TRUE(cm.GetConfigFromCloud());
    EXPECT_EQ(Cached(), c.body);
    const bool same = c.cached && std::string(c.cached) == c.body;
    EXPECT_EQ(log.Has(Level::Info, "Cloud remoteconfig is same with local one, no need save it."
                                   "(ConfigManager::DownloadConfigFile)"), same) << c.body;
    // Read means tried: there is no installed copy to fall back on.
    EXPECT_EQ(log.Contains("Remoteconfig "), !same);
    EXPECT_EQ(log.Has(Level::Error, "Failed Open config = " + cache + " error = 2(ConfigManager::CompareContent)"),
              c.cached == nullptr);
  }
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
  EXPECT_EQ(CountText(RequestLog(), kConfigRequest), 3);  // the exit result fetches nothing
  EXPECT_TRUE(cm.configCheckDone);
  EXPECT_TRUE(log.Has(Level::Info, "ConfigManager WorkerThread start.(ConfigManager::WorkerThread)"));
  EXPECT_TRUE(log.Has(Level::Info, "RemoteConfig param WorkerThread Try to get remote config from cloud. "
                                   "g_forceUpdateTimeperiod = 60000(ConfigManager::WorkerThread)"));
  EXPECT_TRUE(log.Has(Level::Info, "ConfigManager WorkerThread end.(ConfigManager::WorkerThread)"));
}

}  // namespace

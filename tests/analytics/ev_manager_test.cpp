// The event reporter: what it records from requests and the scope proxy, and
// what each flush hands to the reporting library, in which order.
#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "analytics/EvManager.h"
#include "analytics/EvScopeEventSink.h"
#include "config/ConfigManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/log_capture.h"
#include "support/eventually.h"
#include "support/json.h"
#include "support/temp_root.h"
#include "thread/ThreadManager.h"

namespace {

// Writes each call as one text, "Name(arg,arg)"; the texts of GeneralReport go to `reports`.
class FakeLibrary : public EvLibrary {
 public:
  void Init() override { Add("Init()"); }
  void GeneralReport(const std::string& text) override { Add("GeneralReport", text); }
  void ReportForFile(const std::string& f2, const std::string& f1, const std::string& f3) override {
    Add("ReportForFile(" + f2 + "," + f1 + "," + f3 + ")");
  }
  void ReportLocalToServer() override { Add("ReportLocalToServer()"); }
  void ReportForPerDay(const std::string& text) override { Add("ReportForPerDay(" + text + ")"); }
  void UnInit() override { Add("UnInit()"); }

  std::vector<std::string> Calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
    reports.clear();
  }
  std::vector<std::string> reports;

 private:
  void Add(const std::string& call, const std::string& report = {}) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
    if (!report.empty()) reports.push_back(report);
  }
  std::mutex mutex_;
  std::vector<std::string> calls_;
};

// The event data of a report that holds one api record.
Json::Value EventData(const std::string& text) {
  const Json::Value root = tarn::test::ParseJson(text);
  EXPECT_EQ(root["EVReports"].size(), 1u);
  EXPECT_EQ(root["EVReports"][0]["event_name"].asString(), "TARN_PC_SERVICE_API_CALLED");
  return root["EVReports"][0]["event_data"];
}

class EvManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDir(tarn::test::kVtid);
    EvManager::SetLibraryForTesting(&library_);
    EvManager::SetTodayForTesting([this] { return today_; });
    ev_.ResetForTesting();
    ev_.enabled = true;
  }
  void TearDown() override {
    ev_.ResetForTesting();
    EvManager::SetTodayForTesting({});
    EvManager::SetLibraryForTesting(nullptr);
  }
  void SetShareAnalysis(const std::string& value) { root_.WriteFile(tarn::test::kVtid + "ShareAnalysis", value); }
  // A request's callback as the pipeline leaves it before "res".
  void Record(const std::string& apiName, const std::string& direction) {
    TagIPCMessageItem item;
    RequestHeader header{"1.0", "srv", apiName, "app", "pkg", "6.0", "s1", "t1", "6.1", "3", "c1"};
    ResponseStatus status;
    status.status_code = "907135001";
    status.error_code = "907135002";
    ServerResCallBack callback(item, 1, header, status);
    callback.elapsedTicks = 42;
    ev_.RecordApiCall(&callback, direction);
  }
  std::size_t Flushes() {
    auto calls = library_.Calls();
    return std::count(calls.begin(), calls.end(), "Init()");
  }

  tarn::test::TempRoot root_;
  FakeLibrary library_;
  std::string today_ = "20260101";
  EvManager& ev_ = EvManager::GetInstance();
};

TEST_F(EvManagerTest, SharingIsOffOnlyForTheExactTextFalse) {
  EXPECT_TRUE(EvManager::IsShareAnalysisOn()) << "absent";
  for (auto [value, on] : std::vector<std::pair<std::string, bool>>{
           {"false", false}, {"FALSE", true}, {"", true}, {"true", true}, {"false ", true}}) {
    SetShareAnalysis(value);
    EXPECT_EQ(EvManager::IsShareAnalysisOn(), on) << "'" << value << "'";
  }
}

TEST_F(EvManagerTest, ApiCallsAreReportedWithTheirRequestFieldsAndResultOnlyOnRes) {
  Record("Demo.Echo", "req");
  Record("Demo.Echo", "res");
  Record("Framework.EVReport", "req");  // a report about reporting is not made
  Record("Framework.EVReport", "res");
  ev_.FlushReports();

  ASSERT_EQ(library_.reports.size(), 2u);
  Json::Value expected = tarn::test::ParseJson(
      R"({"version":"1.0","service":"srv","apiName":"Demo.Echo","appid":"app","package":"pkg",
          "baseVersion":"6.0","transId":"t1","kitSdkVersion":"6.1","apiLevel":"3",
          "direction":"req","callTime":"","statusCode":"","result":""})");
  EXPECT_EQ(EventData(library_.reports[0]), expected);
  expected["direction"] = "res";
  expected["callTime"] = "42";
  expected["statusCode"] = "907135001";
  expected["result"] = "907135002";
  EXPECT_EQ(EventData(library_.reports[1]), expected);
}

TEST_F(EvManagerTest, ScopeRecordsAreKeptWithSharingOffAndDroppedByTheFlush) {
  ev_.enabled = false;
  Record("Demo.Echo", "req");
  ScopeEventRecord scope;
  scope.apiName = "framework.CheckPermission";
  scope.direction = "res";
  scope.callTime = "7";
  EvScopeEventSink::Instance().RecordScopeEvent(scope);
  ev_.RecordReport("client report");
  EXPECT_EQ(ev_.PendingApiCallCount(), 1u);
  EXPECT_EQ(ev_.PendingReportCount(), 0u);

  // Sharing on again at the flush: the scope record goes out.
  ev_.FlushReports();
  ASSERT_EQ(library_.reports.size(), 1u);
  Json::Value data = EventData(library_.reports[0]);
  EXPECT_EQ(data["apiName"].asString(), "framework.CheckPermission");
  EXPECT_EQ(data["callTime"].asString(), "7");

  // Sharing off at the flush: api records are dropped, client reports wait,
  // and the library is not touched.
  ev_.RecordReport("client report");
  EvScopeEventSink::Instance().RecordScopeEvent(scope);
  SetShareAnalysis("false");
  library_.Clear();
  ev_.FlushReports();
  EXPECT_TRUE(library_.Calls().empty());
  EXPECT_FALSE(ev_.enabled);
  EXPECT_EQ(ev_.PendingApiCallCount(), 0u);
  EXPECT_EQ(ev_.PendingReportCount(), 1u);
  Record("Demo.Echo", "req");
  EXPECT_EQ(ev_.PendingApiCallCount(), 0u);
}

TEST_F(EvManagerTest, FlushOrderWithPerDayReportOncePerDateAndLocalRecords) {
  Record("Demo.Echo", "req");
  ev_.RecordReport("client report");
  root_.WriteFile("var/lib/Vantrel/TARNCORE/ev/ev_record.txt", "a|b|c\n\n0|k|text|2|99|extra\n");
  ev_.FlushReports();
  EXPECT_EQ(library_.Calls(), (std::vector<std::string>{"Init()", "ReportForPerDay(0)", "GeneralReport",
                                                        "GeneralReport", "ReportForFile(c,b,)",
                                                        "ReportForFile(text,k,2)", "ReportLocalToServer()"}));
  EXPECT_EQ(library_.reports[1], "client report");

  // Same day, no local file (the last one was consumed): no per-day report,
  // and the library still sends what it holds.
  library_.Clear();
  ev_.FlushReports();
  EXPECT_EQ(library_.Calls(), (std::vector<std::string>{"Init()", "ReportLocalToServer()"}));

  today_ = "20260102";
  library_.Clear();
  ev_.FlushReports();
  EXPECT_EQ(library_.Calls(), (std::vector<std::string>{"Init()", "ReportForPerDay(0)", "ReportLocalToServer()"}));
}

TEST_F(EvManagerTest, TimerFlushesFirstTickThenEverySixthOrAtTwoHundredRecords) {
  ev_.OnReportTimer();
  EXPECT_EQ(Flushes(), 1u);
  for (int tick = 1; tick <= 5; ++tick) ev_.OnReportTimer();
  EXPECT_EQ(Flushes(), 1u);
  ev_.OnReportTimer();
  EXPECT_EQ(Flushes(), 2u);

  for (int i = 0; i < 199; ++i) Record("Demo.Echo", "req");
  ev_.OnReportTimer();
  EXPECT_EQ(Flushes(), 2u) << "199 records wait";
  Record("Demo.Echo", "req");
  ev_.OnReportTimer();
  EXPECT_EQ(Flushes(), 3u) << "200 records wait";
  EXPECT_EQ(ev_.tickCount, 0);
}

TEST_F(EvManagerTest, ThreadFlushesOnItsTimerAndReleasesTheLibraryAtExit) {
  tarn::log::LogCapture log;
  ConfigManager::GetInstance().evReportTimePeriod = 20;
  auto& threads = VantrelThread::ThreadManager::Instance();
  ASSERT_TRUE(threads.Create(EvManager::ReportMsgProc, &ev_, "EvManager::ReportMsgProc", true));
  ev_.started = true;
  auto flushed = [&] {
    auto calls = library_.Calls();
    return std::find(calls.begin(), calls.end(), "ReportLocalToServer()") != calls.end();
  };
  EXPECT_TRUE(tarn::test::Eventually(flushed, std::chrono::seconds(30))) << "the first timer tick flushes";
  threads.WaitAll();
  VantrelThread::ThreadManager::ResetInstanceForTesting();
  ConfigManager::GetInstance().evReportTimePeriod = 600000;

  EXPECT_EQ(library_.Calls().back(), "UnInit()");
  EXPECT_TRUE(ev_.stopping);
  EXPECT_TRUE(log.Has(tarn::log::Level::Info,
                      "RemoteConfig param EvManager evReportTimePeriod = 20(EvManager::ReportMsgThread)"));
  EXPECT_TRUE(log.Has(tarn::log::Level::Info, "EvManager ReportMsgThread end.(EvManager::ReportMsgThread)"));
}

}  // namespace

#include "analytics/EvManager.h"

#include <cstdio>
#include <ctime>
#include <exception>
#include <fstream>
#include <vector>

#include "config/ConfigManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/ev/tarncore_ev.h"
#include "platform/log/tarn_log.h"
#include "platform/os/message_queue.h"
#include "platform/os/registry.h"
#include "thread/ThreadManager.h"

namespace {

class RealEvLibrary : public EvLibrary {
 public:
  void Init() override { FrameworkEvInit(); }
  void GeneralReport(const std::string& text) override { FrameworkEvGeneralReport(text.c_str()); }
  void ReportForFile(const std::string& field2, const std::string& field1,
                     const std::string& field3) override {
    FrameworkEvReportForFile(field2.c_str(), field1.c_str(), field3.c_str());
  }
  void ReportLocalToServer() override { FrameworkEvReportLocalToServer(); }
  void ReportForPerDay(const std::string& text) override { FrameworkEvReportForPerDay(text.c_str()); }
  void UnInit() override { FrameworkEvUnInit(); }
};

std::atomic<EvLibrary*> g_library{nullptr};
std::mutex g_todayMutex;
std::function<std::string()> g_today;

std::string LocalDate() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[40];
  std::snprintf(text, sizeof(text), "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday);
  return text;
}

std::string Today() {
  std::lock_guard<std::mutex> lock(g_todayMutex);
  return g_today ? g_today() : LocalDate();
}

std::shared_ptr<EvReportInfo> NewApiCalledRecord() {
  auto record = std::make_shared<EvReportInfo>();
  record->eventName = kEvApiCalledEvent;
  record->reportType = "0";
  record->isImmediately = "0";
  return record;
}

// Splits at every '|', keeping empty fields ("a||b" has three).
std::vector<std::string> SplitFields(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (;;) {
    std::size_t bar = line.find('|', start);
    fields.push_back(line.substr(start, bar == std::string::npos ? std::string::npos : bar - start));
    if (bar == std::string::npos) return fields;
    start = bar + 1;
  }
}

}  // namespace

EvManager& EvManager::GetInstance() {
  // Never destroyed: the reporter's thread and request threads may still
  // reach it while statics are torn down at exit.
  static EvManager* instance = new EvManager;
  return *instance;
}

EvLibrary& EvManager::Library() {
  static auto* real = new RealEvLibrary;  // never destroyed, like the manager
  EvLibrary* library = g_library.load(std::memory_order_acquire);
  return library ? *library : *real;
}

void EvManager::SetLibraryForTesting(EvLibrary* library) {
  g_library.store(library, std::memory_order_release);
}

void EvManager::SetTodayForTesting(std::function<std::string()> today) {
  std::lock_guard<std::mutex> lock(g_todayMutex);
  g_today = std::move(today);
}

void EvManager::ResetForTesting() {
  std::lock_guard<std::mutex> lock(pendingLock);
  firstTickDone = false;
  tickCount = 0;
  pendingApiCalls.clear();
  pendingReports.clear();
  lastPerDayDate.clear();
  started = false;
  enabled = false;
  stopping = false;
}

std::size_t EvManager::PendingApiCallCount() {
  std::lock_guard<std::mutex> lock(pendingLock);
  return pendingApiCalls.size();
}

std::size_t EvManager::PendingReportCount() {
  std::lock_guard<std::mutex> lock(pendingLock);
  return pendingReports.size();
}

bool EvManager::IsShareAnalysisOn() {
  std::string value;
  ReadVtidRegistryValue("ShareAnalysis", value);
  return value != "false";
}

std::uint32_t EvManager::ReportMsgProc(void* param) {
  auto* threadParam = static_cast<VantrelThread::ThreadParam*>(param);
  static_cast<EvManager*>(threadParam->arg)->ReportMsgThread();
  return 0;
}

void EvManager::Append(std::shared_ptr<EvReportInfo> record) {
  std::lock_guard<std::mutex> lock(pendingLock);
  pendingApiCalls.push_back(std::move(record));
}

void EvManager::RecordApiCall(ServerResCallBack* callback, const std::string& direction) {
  const RequestHeader& header = callback->header;
  // A report about reporting is not made.
  if (header.api_name == "Framework.EVReport") return;
  if (!enabled.load(std::memory_order_relaxed)) return;
  auto record = NewApiCalledRecord();
  EvReportApiInfo& api = record->api;
  api.version = header.version;
  api.service = header.srv_name;
  api.apiName = header.api_name;
  api.appid = header.app_id;
  api.package = header.pkg_name;
  api.baseVersion = header.sdk_version;
  api.transId = header.transaction_id;
  api.kitSdkVersion = header.kitSdkVersion;
  api.apiLevel = header.apiLevel;
  api.direction = direction;
  if (direction == "res") {
    api.callTime = std::to_string(callback->elapsedTicks);
    api.statusCode = callback->status.status_code;
    api.result = callback->status.error_code;
  }
  Append(std::move(record));
}

void EvManager::RecordApiInfo(const std::shared_ptr<EvReportApiInfo>& info) {
  if (!info) return;
  auto record = NewApiCalledRecord();
  EvReportApiInfo& api = record->api;
  api.version = info->version;
  api.service = info->service;
  api.apiName = info->apiName;
  api.appid = info->appid;
  api.package = info->package;
  api.baseVersion = info->baseVersion;
  api.transId = info->transId;
  api.kitSdkVersion = info->kitSdkVersion;
  api.apiLevel = info->apiLevel;
  api.direction = info->direction;
  if (info->direction == "res") {
    api.callTime = info->callTime;
    api.statusCode = info->statusCode;
    api.result = info->result;
  }
  Append(std::move(record));
}

void EvManager::RecordReport(const std::string& text) {
  if (!enabled.load(std::memory_order_relaxed)) return;
  auto copy = std::make_shared<std::string>(text);
  std::lock_guard<std::mutex> lock(pendingLock);
  pendingReports.push_back(std::move(copy));
}

void EvManager::ReportMsgThread() {
  CLOGI("EvManager::ReportMsgThread", "EvManager ReportMsgThread start.");
  const std::uint32_t period = ConfigManager::GetInstance().evReportTimePeriod;
  CLOGI("EvManager::ReportMsgThread", "RemoteConfig param EvManager evReportTimePeriod = " << period);
  const std::uintptr_t timer =
      tarn::os::SetTimer(0, period, [this](std::uintptr_t) { OnReportTimer(); });

  std::shared_ptr<tarn::os::Event> exitEvent = VantrelThread::ThreadManager::Instance().processExitEvent;
  const std::vector<tarn::os::Waitable*> handles{exitEvent.get()};
  for (;;) {
    const std::uint32_t wait = tarn::os::MsgWaitForMultipleObjects(handles, tarn::os::kInfinite);
    if (wait == tarn::os::kWaitObject0) break;
    if (wait != tarn::os::kWaitObject0 + handles.size()) continue;
    tarn::os::Msg msg;
    if (!tarn::os::PeekMessage(&msg, true)) continue;
    if (msg.message == tarn::os::kWmQuit) break;
    tarn::os::DispatchMessage(msg);
  }

  if (timer) tarn::os::KillTimer(timer);
  stopping = true;
  if (started) {
    Library().UnInit();
    std::lock_guard<std::mutex> lock(pendingLock);
    pendingApiCalls.clear();
    pendingReports.clear();
  }
  CLOGI("EvManager::ReportMsgThread", "EvManager ReportMsgThread end.");
}

void EvManager::OnReportTimer() {
  if (!firstTickDone) {
    FlushReports();
    firstTickDone = true;
    return;
  }
  ++tickCount;
  std::size_t waiting = PendingApiCallCount();
  if (waiting >= kEarlyFlushRecords || tickCount % kTicksPerFlush == 0) {
    FlushReports();
    tickCount = 0;
  }
}

void EvManager::FlushReports() {
  enabled = IsShareAnalysisOn();
  if (!enabled) {
    // Client reports wait for sharing to come back; api records don't.
    std::lock_guard<std::mutex> lock(pendingLock);
    pendingApiCalls.clear();
    return;
  }
  // A failure part-way ends the flush; what it had taken is lost, which a
  // best-effort report can afford.
  try {
    EvLibrary& library = Library();
    library.Init();

    const std::string today = Today();
    if (lastPerDayDate.empty() || lastPerDayDate != today) {
      library.ReportForPerDay("0");
      lastPerDayDate = today;
    }

    std::list<std::shared_ptr<EvReportInfo>> apiCalls;
    std::list<std::shared_ptr<std::string>> reports;
    {
      std::lock_guard<std::mutex> lock(pendingLock);
      apiCalls.swap(pendingApiCalls);
      reports.swap(pendingReports);
    }

    for (const auto& record : apiCalls) {
      if (stopping) break;
      if (record->eventName != kEvApiCalledEvent) continue;
      std::string text;
      GetEvReportText(record, text);
      library.GeneralReport(text);
    }
    for (const auto& report : reports) {
      if (stopping) break;
      library.GeneralReport(*report);
    }

    ReportLocalRecords();
    library.ReportLocalToServer();
  } catch (const std::exception&) {
  }
}

void EvManager::ReportLocalRecords() {
  const std::string folder = tarn::ev::RecordFolder();
  const std::string recordPath = folder + "/" + tarn::ev::kRecordFileName;
  const std::string tempPath = folder + "/" + tarn::ev::kRecordTempFileName;

  std::remove(tempPath.c_str());
  // The library starts a new record file at its next write.
  if (std::rename(recordPath.c_str(), tempPath.c_str()) != 0) return;

  std::ifstream in(tempPath);
  std::string line;
  EvLibrary& library = Library();
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    std::vector<std::string> fields = SplitFields(line);
    fields.resize(5);
    library.ReportForFile(fields[2], fields[1], fields[3]);
  }
}

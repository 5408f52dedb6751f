#pragma once
// The event reporter. Request threads only append records to in-memory lists
// under a short lock; one thread, "EvManager::ReportMsgProc", does the rest on
// a timer: it reads the user's ShareAnalysis choice, builds the JSON texts and
// hands them, with the records of the local file, to the reporting library.
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "analytics/EvReportInfo.h"

class ServerResCallBack;

// The reporting library as the reporter's thread calls it; tests install their own.
class EvLibrary {
 public:
  virtual ~EvLibrary() = default;
  virtual void Init() = 0;
  virtual void GeneralReport(const std::string& text) = 0;
  virtual void ReportForFile(const std::string& field2, const std::string& field1,
                             const std::string& field3) = 0;
  virtual void ReportLocalToServer() = 0;
  virtual void ReportForPerDay(const std::string& text) = 0;
  virtual void UnInit() = 0;
};

class EvManager {
 public:
  // A flush comes early once this many api records wait.
  static constexpr std::size_t kEarlyFlushRecords = 200;
  // Ticks after the first flush between flushes.
  static constexpr int kTicksPerFlush = 6;

  static EvManager& GetInstance();
  EvManager() = default;
  EvManager(const EvManager&) = delete;
  EvManager& operator=(const EvManager&) = delete;

  // The thread function: arg is the thread's ThreadParam, whose arg is the
  // EvManager. Runs ReportMsgThread and returns 0.
  static std::uint32_t ReportMsgProc(void* param);
  // False only when ShareAnalysis is exactly "false".
  static bool IsShareAnalysisOn();

  // direction "req" (after the gates) or "res" (with the callback's elapsed
  // ticks and status). Not for "Framework.EVReport" and not with sharing off.
  void RecordApiCall(ServerResCallBack* callback, const std::string& direction);
  // A scope service record; made even with sharing off (the flush drops it then).
  void RecordApiInfo(const std::shared_ptr<EvReportApiInfo>& info);
  // A client's report text, kept for the next flush when sharing is on.
  void RecordReport(const std::string& text);

  void ReportMsgThread();
  void OnReportTimer();
  void FlushReports();
  void ReportLocalRecords();

  // The reporting library in use (the real one unless a test installed another).
  EvLibrary& Library();
  // nullptr restores the real library.
  static void SetLibraryForTesting(EvLibrary* library);
  // Today's local date as "%04d%02d%02d"; an empty source restores the clock.
  static void SetTodayForTesting(std::function<std::string()> today);
  // Back to the state of a fresh process.
  void ResetForTesting();
  std::size_t PendingApiCallCount();
  std::size_t PendingReportCount();

  bool firstTickDone = false;
  std::int32_t tickCount = 0;
  std::list<std::shared_ptr<EvReportInfo>> pendingApiCalls;
  std::list<std::shared_ptr<std::string>> pendingReports;
  std::string lastPerDayDate;
  std::atomic<bool> started{false};
  std::atomic<bool> enabled{false};
  std::atomic<bool> stopping{false};
  std::mutex pendingLock;

 private:
  void Append(std::shared_ptr<EvReportInfo> record);
};

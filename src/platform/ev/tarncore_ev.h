#pragma once
// The reporting library: usage reports go to the analytics service of the
// address book ("com.vantrel.evservice", key "ROOT") as one HTTP POST each.
// What can't be sent is kept, one record a line, in
// <common app data>/Vantrel/TARNCORE/ev/ev_record.txt, which the container
// reads back at each flush and hands in again through FrameworkEvReportForFile.
//
// A line has five fields joined by '|':
//   0 local time "%04d%02d%02d%02d%02d%02d" of the write
//   1 the record's kind: "general", "file" or "perday"
//   2 the report text, with '%', '|', CR and LF escaped as %25, %7C, %0D, %0A
//   3 how many deliveries have failed so far, decimal
//   4 the writer's process id
// A record is dropped once kMaxDeliveryAttempts deliveries have failed, so a
// service that is never reachable doesn't grow the file without bound.
#include <string>

// Makes the library ready: reads the service's address. Called before each
// flush; any number of calls is fine.
void FrameworkEvInit();
// Sends one report; on failure the report goes to the record file, and so do
// all reports until the next FrameworkEvInit (the service is taken to be down).
void FrameworkEvGeneralReport(const char* text);
// Appends one record to the record file. Safe from any thread.
void FrameworkEvReportToFile(const char* text);
// One record read back from the record file (its fields 2, 1 and 3). Held
// until FrameworkEvReportLocalToServer.
void FrameworkEvReportForFile(const char* text, const char* kind, const char* attempts);
// Sends the records held since the last call; those that fail go back to the
// record file with one more failed attempt.
void FrameworkEvReportLocalToServer();
// Sends the once-a-day report, which the library gathers itself; text is its reportType.
void FrameworkEvReportForPerDay(const char* text);
// Releases the library: records still held go back to the record file.
void FrameworkEvUnInit();

namespace tarn::ev {

inline constexpr const char* kServiceName = "com.vantrel.evservice";
inline constexpr const char* kServiceKey = "ROOT";
inline constexpr const char* kRecordFileName = "ev_record.txt";
inline constexpr const char* kRecordTempFileName = "ev_record_temp.txt";
inline constexpr int kMaxDeliveryAttempts = 24;

// <common app data>/Vantrel/TARNCORE/ev (no trailing '/').
std::string RecordFolder();

// How a report reaches the service; tests install their own.
class Transport {
 public:
  virtual ~Transport() = default;
  // True when the service took the report (an HTTP 2xx answer).
  virtual bool Post(const std::string& url, const std::string& body) = 0;
};

// libcurl: a JSON POST with a 5 s connect and a 15 s whole-request limit.
class CurlTransport : public Transport {
 public:
  bool Post(const std::string& url, const std::string& body) override;
};

// nullptr restores libcurl. (The address book is UrlLoader's; tests point it
// elsewhere with UrlLoader::SetAddressBookPath.)
void SetTransportForTesting(Transport* transport);
// Forgets the address and the held records (without writing them), as after UnInit.
void ResetForTesting();

// The record-line escaping of field 2.
std::string EscapeField(const std::string& text);
std::string UnescapeField(const std::string& text);

}  // namespace tarn::ev

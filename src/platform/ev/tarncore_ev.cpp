#include "platform/ev/tarncore_ev.h"

#include <fcntl.h>
#include <json/value.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/commonutil/urlloader.h"
#include "platform/os/places.h"
#include "platform/os/registry.h"

namespace tarn::ev {
namespace {

struct HeldRecord {
  std::string text;  // unescaped
  std::string kind;
  int attempts = 0;
};

std::mutex g_mutex;  // guards everything below and the appends to the record file
// Never destroyed, like every state here: a reporting thread that WaitAll left
// behind may still flush while the process exits.
std::string& g_url = *new std::string;
bool g_haveUrl = false;
// Set by a failed post: the rest of the flush goes straight to the file
// instead of waiting out a time-out per report. Cleared by FrameworkEvInit.
bool g_serviceDown = false;
std::vector<HeldRecord>& g_held = *new std::vector<HeldRecord>;
Transport* g_transport = nullptr;

Transport& CurrentTransport() {
  static auto* curl = new CurlTransport;
  return g_transport ? *g_transport : *curl;
}

std::string LocalTime(const char* format) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof(text), format, &local);
  return text;
}

std::string RecordLine(const std::string& kind, const std::string& text, int attempts) {
  return LocalTime("%Y%m%d%H%M%S") + "|" + kind + "|" + EscapeField(text) + "|" +
         std::to_string(attempts) + "|" + std::to_string(::getpid()) + "\n";
}

// One write with O_APPEND, so lines of concurrent writers never interleave.
// Locked by the caller.
void AppendLineLocked(const std::string& line) {
  const std::string folder = RecordFolder();
  tarn::os::MakeDirectories(folder);
  int fd = ::open((folder + "/" + kRecordFileName).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
                  0644);
  if (fd < 0) return;
  const char* data = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    data += n;
    left -= static_cast<std::size_t>(n);
  }
  ::close(fd);
}

void Keep(const std::string& kind, const std::string& text, int attempts) {
  if (attempts >= kMaxDeliveryAttempts) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  AppendLineLocked(RecordLine(kind, text, attempts));
}

// Sends without holding the lock: a slow service must not hold up a request
// thread that appends a record.
bool Send(const std::string& text) {
  std::string url;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_haveUrl || g_serviceDown) return false;
    url = g_url;
  }
  if (CurrentTransport().Post(url, text)) return true;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_serviceDown = true;
  return false;
}

void SendOrKeep(const std::string& kind, const std::string& text, int attempts) {
  if (!Send(text)) Keep(kind, text, attempts + 1);
}

std::string VtidValue(const char* name) {
  std::string value;
  ReadVtidRegistryValue(name, value);
  return value;
}

// The once-a-day report: the platform's state as this machine has it now.
std::string PerDayReport(const std::string& reportType) {
  Json::Value data(Json::objectValue);
  data["tarncore_version"] = VtidValue("Version");
  data["tarncore_shareAnalysis"] = VtidValue("ShareAnalysis");
  data["tarncore_autoupdate"] = VtidValue("AutoUpgrade");
  data["device_unique_id"] = VtidValue("AAID");
  data["software_os_version"] = tarn::os::OperatingSystemName();
  data["tarncore_reportDate"] = LocalTime("%Y%m%d");
  data["tarncore_reportTime"] = LocalTime("%H%M%S");
  Json::Value event(Json::objectValue);
  event["event_name"] = "TARN_PC_SERVICE_REPORT_PER_DAY";
  event["reportType"] = reportType;
  event["isImmediately"] = "0";
  event["event_data"] = data;
  Json::Value root(Json::objectValue);
  root["EVReports"].append(event);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, root) + "\n";
}

int Attempts(const char* text) {
  if (!text) return 0;
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text || value < 0) return 0;
  return value > kMaxDeliveryAttempts ? kMaxDeliveryAttempts : static_cast<int>(value);
}

std::string Text(const char* text) { return text ? text : ""; }

}  // namespace

std::string RecordFolder() { return tarn::os::CommonAppDataPath() + "/Vantrel/TARNCORE/ev"; }

std::string EscapeField(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '%': out += "%25"; break;
      case '|': out += "%7C"; break;
      case '\r': out += "%0D"; break;
      case '\n': out += "%0A"; break;
      default: out += c;
    }
  }
  return out;
}

std::string UnescapeField(const std::string& text) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

void SetTransportForTesting(Transport* transport) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_transport = transport;
}

void ResetForTesting() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_url.clear();
  g_haveUrl = false;
  g_serviceDown = false;
  g_held.clear();
}

}  // namespace tarn::ev

using namespace tarn::ev;

void FrameworkEvInit() {
  // Read at each call, so an address book that changes reaches the next flush.
  std::string url;
  const bool have = UrlLoader::GetServiceUrl(kServiceName, url, kServiceKey) && !url.empty();
  std::lock_guard<std::mutex> lock(g_mutex);
  g_haveUrl = have;
  g_url = have ? url : std::string();
  g_serviceDown = false;
}

void FrameworkEvGeneralReport(const char* text) { SendOrKeep("general", Text(text), 0); }

void FrameworkEvReportToFile(const char* text) {
  std::lock_guard<std::mutex> lock(g_mutex);
  AppendLineLocked(RecordLine("file", Text(text), 0));
}

void FrameworkEvReportForFile(const char* text, const char* kind, const char* attempts) {
  HeldRecord record{UnescapeField(Text(text)), Text(kind), Attempts(attempts)};
  if (record.text.empty()) return;
  if (record.kind.empty()) record.kind = "file";
  std::lock_guard<std::mutex> lock(g_mutex);
  g_held.push_back(std::move(record));
}

void FrameworkEvReportLocalToServer() {
  std::vector<HeldRecord> held;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    held.swap(g_held);
  }
  for (const HeldRecord& record : held) SendOrKeep(record.kind, record.text, record.attempts);
}

void FrameworkEvReportForPerDay(const char* text) { SendOrKeep("perday", PerDayReport(Text(text)), 0); }

void FrameworkEvUnInit() {
  std::lock_guard<std::mutex> lock(g_mutex);
  for (const HeldRecord& record : g_held) AppendLineLocked(RecordLine(record.kind, record.text, record.attempts));
  g_held.clear();
  g_url.clear();
  g_haveUrl = false;
}

#include "access/zbrf_log_adapter.h"

#include <string>

#include "platform/log/tarn_log.h"

namespace {

std::string Copy(const char* text) { return text ? std::string(text) : std::string(); }

}  // namespace

void ZbrfLogAdapter::Print(const char* tag, const char* text) { TARNLOGI(Copy(tag), Copy(text)); }
void ZbrfLogAdapter::Debug(const char* tag, const char* text) { TARNLOGD(Copy(tag), Copy(text)); }
void ZbrfLogAdapter::Info(const char* tag, const char* text) { TARNLOGI(Copy(tag), Copy(text)); }
void ZbrfLogAdapter::Warn(const char* tag, const char* text) { TARNLOGW(Copy(tag), Copy(text)); }
void ZbrfLogAdapter::Error(const char* tag, const char* text) { TARNLOGE(Copy(tag), Copy(text)); }
void ZbrfLogAdapter::Fatal(const char* tag, const char* text) { TARNLOGE(Copy(tag), Copy(text)); }
ZbrfLogAdapter::~ZbrfLogAdapter() = default;

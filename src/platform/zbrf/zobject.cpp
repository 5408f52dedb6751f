#include "platform/zbrf/zobject.h"

#include "platform/zbrf/log_adapter.h"

namespace tarn::zbrf {

ZObject::~ZObject() = default;

bool ZObject::OnTransact(uint32_t, const std::shared_ptr<ZParcel>&, const std::shared_ptr<ZParcel>&,
                         uint32_t) {
  return false;
}

bool ZObject::Transact(uint32_t, const std::shared_ptr<ZParcel>&, const std::shared_ptr<ZParcel>&,
                       uint32_t) {
  return false;
}

void LogAdapter::Print(const char*, const char*) {}
void LogAdapter::Debug(const char*, const char*) {}
void LogAdapter::Info(const char*, const char*) {}
void LogAdapter::Warn(const char*, const char*) {}
void LogAdapter::Error(const char*, const char*) {}
void LogAdapter::Fatal(const char*, const char*) {}
LogAdapter::~LogAdapter() = default;

}  // namespace tarn::zbrf

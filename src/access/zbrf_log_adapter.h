#pragma once
// Bridges the service framework's diagnostics into the container's log, under
// the framework's own tag. The container makes one and hands it to
// ZServiceManager::RegisterLogAdapter, which owns it.
#include "platform/zbrf/log_adapter.h"

class ZbrfLogAdapter : public tarn::zbrf::LogAdapter {
 public:
  void Print(const char* tag, const char* text) override;
  void Debug(const char* tag, const char* text) override;
  void Info(const char* tag, const char* text) override;
  void Warn(const char* tag, const char* text) override;
  void Error(const char* tag, const char* text) override;
  void Fatal(const char* tag, const char* text) override;
  ~ZbrfLogAdapter() override;
};

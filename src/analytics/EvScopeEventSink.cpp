#include "analytics/EvScopeEventSink.h"

#include <memory>

#include "analytics/EvManager.h"

EvScopeEventSink& EvScopeEventSink::Instance() {
  // Never destroyed: the proxy may report while statics are torn down.
  static EvScopeEventSink* sink = new EvScopeEventSink;
  return *sink;
}

void EvScopeEventSink::RecordScopeEvent(const ScopeEventRecord& record) {
  auto info = std::make_shared<EvReportApiInfo>(EvReportApiInfo{
      record.version, record.service, record.apiName, record.appid, record.package,
      record.baseVersion, record.transId, record.kitSdkVersion, record.apiLevel, record.callTime,
      record.direction, record.statusCode, record.result});
  EvManager::GetInstance().RecordApiInfo(info);
}

#pragma once
// Hands the scope proxy's records to the event reporter. Install it with
// ScopeProxy::SetEventSink(&EvScopeEventSink::Instance()) before the scope
// service is first used.
#include "access/scope_proxy.h"

class EvScopeEventSink : public ScopeEventSink {
 public:
  static EvScopeEventSink& Instance();
  void RecordScopeEvent(const ScopeEventRecord& record) override;
};

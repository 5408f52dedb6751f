// The in-process build ("dll.scopeService"): the service manager loads this
// library and calls its factory.
#include <memory>

#include "scope_service_object.h"

extern "C" __attribute__((visibility("default"))) bool getScopeService(
    std::shared_ptr<tarn::zbrf::ZObject>* out) {
  if (!out) return false;
  try {
    *out = tarn::scope::MakeScopeService();
  } catch (...) {
    return false;
  }
  return true;
}

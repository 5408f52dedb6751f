// The sandboxed build ("wasm.scopeService"): started by the service manager
// with its socket on descriptor 3; reads nothing but the policy folder.
#include "platform/os/places.h"
#include "platform/zbrf/sandbox_host.h"
#include "scope_service_object.h"

int main(int argc, char** argv) {
  tarn::zbrf::SandboxSpec spec;
  spec.methods.emplace_back("getScopeService", [](std::shared_ptr<tarn::zbrf::ZObject>* out) {
    *out = tarn::scope::MakeScopeService();
    return true;
  });
  spec.readableDirs.push_back(tarn::os::MachinePath("etc/tarncore"));
  return tarn::zbrf::SandboxMain(argc, argv, spec);
}

#include "kit/KitRuntimeHooks.h"

#include <atomic>

#include "platform/log/tarn_log.h"

namespace tarn::kit {

namespace {

std::atomic<KitRuntimeHooks*> g_hooks{nullptr};

KitRuntimeHooks& Defaults() {
  static auto* hooks = new KitRuntimeHooks;  // request threads may outlive static teardown
  return *hooks;
}

}  // namespace

bool KitRuntimeHooks::IsUpdating() { return false; }

bool KitRuntimeHooks::HasNewVersion() { return false; }

void KitRuntimeHooks::RegisterFrameworkHandlers() {}

bool KitRuntimeHooks::FrameworkInvoke(const std::string& uri, ServerResCallBack*, ConvertedRequest&,
                                      ResponseStatus&) {
  CLOGE("FrameworkKitAPI::Invoke", "uri: " << uri << " is not supported");
  return true;
}

KitRuntimeHooks& GetKitRuntimeHooks() {
  KitRuntimeHooks* hooks = g_hooks.load(std::memory_order_acquire);
  return hooks ? *hooks : Defaults();
}

void SetKitRuntimeHooks(KitRuntimeHooks* hooks) { g_hooks.store(hooks, std::memory_order_release); }

}  // namespace tarn::kit

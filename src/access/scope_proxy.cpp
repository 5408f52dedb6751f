#include "access/scope_proxy.h"

#include <sys/random.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "platform/log/tarn_log.h"
#include "platform/zbrf/service_manager.h"

namespace {

std::atomic<ScopeProxy*> g_testProxy{nullptr};
std::atomic<ScopeEventSink*> g_eventSink{nullptr};

uint32_t MonotonicTicks() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                               static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
}

// Nine random bytes, each in decimal, joined and cut to nine digits.
int RandomNumber() {
  unsigned char bytes[9] = {};
  if (::getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes))) return 0;
  std::string digits;
  for (unsigned char b : bytes) digits += std::to_string(b);
  return std::atoi(digits.substr(0, 9).c_str());
}

std::string LocalTimeText() {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  ::localtime_r(&now, &tm);
  char text[32];
  std::snprintf(text, sizeof(text), "%04d%02d%02d%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec);
  return text;
}

}  // namespace

ScopeProxy::Platform ScopeProxy::Platform::Default() {
  Platform p;
  p.initServiceManager = [] { tarn::zbrf::ZServiceManager::GetInstance().Init(); };
  p.createInstance = [](const std::string& name, const std::string& method,
                        std::shared_ptr<tarn::zbrf::ZObject>& object) {
    return tarn::zbrf::ZServiceManager::GetInstance().CreateInstance(name, method, object);
  };
  p.tickCount = MonotonicTicks;
  p.sleepMs = [](uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); };
  return p;
}

ScopeProxy& ScopeProxy::Instance() {
  if (ScopeProxy* test = g_testProxy.load(std::memory_order_acquire)) return *test;
  static ScopeProxy* proxy = new ScopeProxy(Platform::Default());
  return *proxy;
}

void ScopeProxy::SetInstanceForTesting(ScopeProxy* proxy) { g_testProxy.store(proxy, std::memory_order_release); }

void ScopeProxy::SetEventSink(ScopeEventSink* sink) { g_eventSink.store(sink, std::memory_order_release); }

ScopeProxy::ScopeProxy(Platform platform) : platform_(std::move(platform)) {
  if (platform_.initServiceManager) platform_.initServiceManager();
  CreateWasmScopeService();
}

ScopeProxy::~ScopeProxy() = default;

bool ScopeProxy::CreateWasmScopeService() {
  CLOGI("ScopeProxy::CreateWasmScopeService", "ScopeProxy: CreateScopeService enter");
  for (int attempt = 0; attempt < kWasmTries; ++attempt) {
    std::shared_ptr<tarn::zbrf::ZObject> object;
    if (platform_.createInstance(kWasmServiceName, kFactoryMethod, object) && object) {
      CLOGI("ScopeProxy::CreateWasmScopeService", "scope proxy create service with wasm success");
      mScopeService.store(std::make_shared<service::ZpScopeService>(std::move(object)));
      hasService_.store(true);
      return true;
    }
    CLOGE("ScopeProxy::CreateWasmScopeService", "scope proxy create service with wasm failed");
  }
  return CreateDllScopeService();
}

bool ScopeProxy::CreateDllScopeService() {
  CLOGI("ScopeProxy::CreateDllScopeService", "scope proxy create service will with native dll");
  // Both readings come before any work: the reported time is about 0, as it
  // always has been.
  const uint32_t begin = platform_.tickCount();
  const uint32_t end = platform_.tickCount();
  ReportScopeEvent("CreateScopeService", "907180001", end - begin);

  std::shared_ptr<tarn::zbrf::ZObject> object;
  if (!platform_.createInstance(kDllServiceName, kFactoryMethod, object) || !object) {
    CLOGE("ScopeProxy::CreateDllScopeService", "scope proxy create service with native dll failed");
    return false;
  }
  CLOGI("ScopeProxy::CreateDllScopeService", "scope proxy create service with dll success");
  std::lock_guard<std::mutex> lock(mMutex);
  auto local = std::make_shared<LocalZbrfProxy>(std::move(object));
  mScopeService.store(std::make_shared<service::ZpScopeService>(std::move(local)));
  hasService_.store(true);
  fallback.store(true);
  return true;
}

bool ScopeProxy::IsNeedTry(const std::string& operationName, int tryCount, uint32_t startTicks) {
  if (fallback.load()) return tryCount == 0;
  if (tryCount < kWasmTries) return true;
  CLOGI("ScopeProxy::IsNeedTry", "scope proxy call will with native dll");
  ReportScopeEvent(operationName, "-1", platform_.tickCount() - startTicks);
  return CreateDllScopeService();
}

void ScopeProxy::ReportScopeEvent(const std::string& operation, const std::string& statusCode,
                                  uint32_t elapsedMs) {
  ScopeEventRecord record;
  record.version = "4.0";
  record.service = "framework";
  record.apiName = "framework." + operation;
  record.appid = "";
  record.package = "com.vantrel.tarn.framework";
  record.baseVersion = "6.3.0";
  record.transId = record.appid + record.apiName + LocalTimeText() + std::to_string(RandomNumber());
  record.kitSdkVersion = "6.3.0";
  record.apiLevel = "1";
  record.callTime = std::to_string(elapsedMs);
  record.direction = "res";
  record.statusCode = statusCode;
  record.result = "-1";
  if (ScopeEventSink* sink = g_eventSink.load(std::memory_order_acquire)) sink->RecordScopeEvent(record);
}

bool ScopeProxy::ServicePresent(const char* where) {
  if (hasService_.load()) return true;
  CLOGE(where, "ScopeProxy: mScopeService is null. fallback: " << (fallback.load() ? 1 : 0));
  return false;
}

template <class Call>
bool ScopeProxy::InvokeWithTry(const char* operation, Call&& call) {
  const uint32_t startTicks = platform_.tickCount();
  for (int tryCount = 0; IsNeedTry(operation, tryCount, startTicks); ++tryCount) {
    std::shared_ptr<service::IScopeService> service = mScopeService.load();
    if (service && call(*service)) return true;
  }
  return false;
}

int32_t ScopeProxy::CheckCertFingerprint(const std::string& appId, const std::string& packageFingerprint) {
  static constexpr const char* kWhere = "ScopeProxy::CheckCertFingerprint";
  CLOGI(kWhere, "ScopeProxy: CheckCertFingerprint enter appId:" << appId << " packageFingerprint:"
                                                                 << packageFingerprint);
  if (!ServicePresent(kWhere)) return kNoAnswer;
  // A pass whose tries all fail keeps the previous pass's code, busy included.
  int32_t result = kNoAnswer;
  for (int pass = 0; pass < kBusyPasses; ++pass) {
    InvokeWithTry("CheckCertFingerprint", [&](service::IScopeService& s) {
      return s.CheckCertFingerprint(appId, packageFingerprint, result);
    });
    if (result != kBusy) return result;
    platform_.sleepMs(kBusySleepMs);
  }
  CLOGW(kWhere, "scope proxy invokewithtry times limit");
  return kBusyLimit;
}

bool ScopeProxy::CheckApiPermission(const std::string& appId, const std::string& permission,
                                    const std::string& scopeUri) {
  static constexpr const char* kWhere = "ScopeProxy::CheckApiPermission";
  CLOGI(kWhere, "ScopeProxy: CheckApiPermission enter");
  if (!ServicePresent(kWhere)) return false;
  bool allowed = false;
  InvokeWithTry("CheckApiPermission", [&](service::IScopeService& s) {
    return s.CheckApiPermission(appId, permission, scopeUri, allowed);
  });
  return allowed;
}

bool ScopeProxy::CheckPermission(const std::string& appId, const std::string& permission) {
  static constexpr const char* kWhere = "ScopeProxy::CheckPermission";
  CLOGI(kWhere, "ScopeProxy: CheckPermission enter");
  if (!ServicePresent(kWhere)) return false;
  bool allowed = false;
  InvokeWithTry("CheckPermission",
                [&](service::IScopeService& s) { return s.CheckPermission(appId, permission, allowed); });
  return allowed;
}

void ScopeProxy::SetLastCheckTime(const std::string& appId) {
  static constexpr const char* kWhere = "ScopeProxy::SetLastCheckTime";
  CLOGI(kWhere, "ScopeProxy: SetLastCheckTime enter appId:" << appId);
  if (!ServicePresent(kWhere)) return;
  InvokeWithTry("SetLastCheckTime", [&](service::IScopeService& s) { return s.SetLastCheckTime(appId); });
}

void ScopeProxy::GetScopeByAppId(const std::string& appId, std::list<Scope>& scopes) {
  static constexpr const char* kWhere = "ScopeProxy::GetScopeByAppId";
  CLOGI(kWhere, "ScopeProxy: GetScopeByAppId enter");
  if (!ServicePresent(kWhere)) return;
  InvokeWithTry("GetScopeByAppId", [&](service::IScopeService& s) {
    std::vector<std::shared_ptr<service::ScopeItem>> items;
    if (!s.GetScopeByAppId(appId, items)) return false;
    for (const auto& item : items) {
      Scope scope;
      scope.AddId(item->id);
      scope.AddName(item->name);
      scope.AddUrl(item->url);
      for (const auto& permission : item->permissions) scope.AddPermissionsList(permission);
      scopes.push_back(scope);
    }
    return true;
  });
}

void ScopeProxy::InvokeOpenGateway(const std::string& appId) {
  static constexpr const char* kWhere = "ScopeProxy::InvokeOpenGateway";
  CLOGI(kWhere, "ScopeProxy: InvokeOpenGateway enter appId:" << appId);
  if (!ServicePresent(kWhere)) return;
  InvokeWithTry("InvokeOpenGateway", [&](service::IScopeService& s) { return s.InvokeOpenGateway(appId); });
}

// Defined with the proxy so that a program that links the proxy always
// carries the export kits look for.
int TarnGetScopeByAppId(const std::string& appId, std::list<Scope>& scopes) {
  ScopeProxy::Instance().GetScopeByAppId(appId, scopes);
  return 0;
}

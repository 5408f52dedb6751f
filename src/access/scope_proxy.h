#pragma once
// The one door to the scope service, which makes every permission decision.
// The proxy creates the service (the sandboxed build first, the native build
// as a fallback that is never undone), keeps it, and retries each call: up to
// three tries on the sandboxed build, one on the native build. Only
// CheckCertFingerprint waits for a busy service, 220 times 100 ms at most.
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "access/scope_service.h"
#include "tarnkit/scope.h"

// One analytics record about the scope service, with the fields of the event
// reporter's api record.
struct ScopeEventRecord {
  std::string version;
  std::string service;
  std::string apiName;
  std::string appid;
  std::string package;
  std::string baseVersion;
  std::string transId;
  std::string kitSdkVersion;
  std::string apiLevel;
  std::string callTime;
  std::string direction;
  std::string statusCode;
  std::string result;
};

// Where the proxy's reports go: the event reporter registers one at start.
class ScopeEventSink {
 public:
  virtual ~ScopeEventSink() = default;
  virtual void RecordScopeEvent(const ScopeEventRecord& record) = 0;
};

class ScopeProxy {
 public:
  // Results of CheckCertFingerprint besides the service's own codes.
  static constexpr int32_t kAccepted = 0;
  static constexpr int32_t kAcceptedNotWhitelisted = 1000;
  static constexpr int32_t kBusy = 1001;
  static constexpr int32_t kBusyLimit = 2000;
  static constexpr int32_t kNoAnswer = -1;

  static constexpr const char* kWasmServiceName = "wasm.scopeService";
  static constexpr const char* kDllServiceName = "dll.scopeService";
  static constexpr const char* kFactoryMethod = "getScopeService";
  static constexpr int kWasmTries = 3;
  static constexpr int kBusyPasses = 220;
  static constexpr uint32_t kBusySleepMs = 100;

  // What the proxy needs of the platform; tests replace it.
  struct Platform {
    std::function<void()> initServiceManager;
    std::function<bool(const std::string& serviceName, const std::string& method,
                       std::shared_ptr<tarn::zbrf::ZObject>& object)>
        createInstance;
    std::function<uint32_t()> tickCount;
    std::function<void(uint32_t ms)> sleepMs;

    // ZServiceManager::GetInstance(), the monotonic tick counter, a real sleep.
    static Platform Default();
  };

  // The process's proxy, made at first use.
  static ScopeProxy& Instance();
  // Tests put another proxy in its place; nullptr restores the real one.
  static void SetInstanceForTesting(ScopeProxy* proxy);
  // Reports go to `sink` (not owned); nullptr drops them.
  static void SetEventSink(ScopeEventSink* sink);

  // Initialises the service manager and tries the sandboxed build.
  explicit ScopeProxy(Platform platform);
  ~ScopeProxy();
  ScopeProxy(const ScopeProxy&) = delete;
  ScopeProxy& operator=(const ScopeProxy&) = delete;

  // The table of codes above; -1 when no answer was obtained.
  int32_t CheckCertFingerprint(const std::string& appId, const std::string& packageFingerprint);
  // False when no answer was obtained.
  bool CheckApiPermission(const std::string& appId, const std::string& permission, const std::string& scopeUri);
  bool CheckPermission(const std::string& appId, const std::string& permission);
  void SetLastCheckTime(const std::string& appId);
  // Appends the client's scopes; the list stays as it was without an answer.
  void GetScopeByAppId(const std::string& appId, std::list<Scope>& scopes);
  void InvokeOpenGateway(const std::string& appId);

  bool CreateWasmScopeService();
  bool CreateDllScopeService();
  bool IsNeedTry(const std::string& operationName, int tryCount, uint32_t startTicks);
  void ReportScopeEvent(const std::string& operation, const std::string& statusCode, uint32_t elapsedMs);

  // For the configuration refresh, which creates the service if there is none.
  bool HasService() const { return hasService_.load(); }
  bool IsFallback() const { return fallback.load(); }

 private:
  template <class Call>
  bool InvokeWithTry(const char* operation, Call&& call);
  bool ServicePresent(const char* where);

  Platform platform_;
  std::mutex mMutex;
  std::atomic<std::shared_ptr<service::IScopeService>> mScopeService;
  // Set once mScopeService holds a service, which is never taken away: a
  // look at it costs no lock and no count on the shared pointer.
  std::atomic<bool> hasService_{false};
  std::atomic<bool> fallback{false};
};

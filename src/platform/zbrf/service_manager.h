#pragma once
// The service manager: which services exist (from the packages'
// ServiceInfo.json files) and how to make an instance of one.
//
// ServiceInfo.json:
//   { "services": [ { "name": "...", "kind": "library" | "sandbox",
//                     "path": "<relative to the file's folder>",
//                     "methods": ["<factory>"] } ] }
//
// A "library" is loaded in this process and its factory
//   extern "C" bool <method>(std::shared_ptr<tarn::zbrf::ZObject>* out)
// is called. A "sandbox" program is started as a child (sandbox_channel.h)
// and the object returned talks to it. Either file must carry a valid
// embedded signature, which is checked on an open descriptor; that same
// descriptor is what gets loaded or executed.
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/zbrf/log_adapter.h"
#include "platform/zbrf/zobject.h"

namespace tarn::zbrf {

class ZServiceManager {
 public:
  enum class Kind { Library, Sandbox };
  struct ServiceInfo {
    std::string name;
    Kind kind = Kind::Library;
    std::string path;  // absolute
    std::vector<std::string> methods;
  };

  // One entry of a ServiceInfo.json as registration judges it.
  struct ServiceEntry {
    enum class Problem { kNone, kMalformed, kUnknownKind, kBadPath, kBadSignature };
    Problem problem = Problem::kNone;
    ServiceInfo info;      // as far as it could be read; path absolute once the path passed
    std::string kindText;  // "kind" as written
    std::string pathText;  // "path" as written
  };
  struct ServiceInfoFile {
    enum class State { kRead, kUnreadable, kNotServiceInfo };
    State state = State::kUnreadable;
    std::string error;  // the JSON reader's message, for kNotServiceInfo
    std::vector<ServiceEntry> entries;
  };
  // Reads a ServiceInfo.json and judges each entry, registering nothing:
  // the entries without a problem are what RegisterServiceInfo registers.
  static ServiceInfoFile ReadServiceInfo(const std::string& path);

  static ZServiceManager& GetInstance();

  // Tests make their own managers; the process uses GetInstance().
  ZServiceManager();
  ~ZServiceManager();
  ZServiceManager(const ZServiceManager&) = delete;
  ZServiceManager& operator=(const ZServiceManager&) = delete;

  // Ready for use; may be called any number of times.
  bool Init();
  // Reads one ServiceInfo.json and registers its services (a name registered
  // again takes the new entry). Entries whose file is missing, unsigned or
  // outside the package folder are skipped. True when at least one service
  // was registered.
  bool RegisterServiceInfo(const std::string& path);
  // The manager owns the adapter from now on; it replaces an earlier one.
  void RegisterLogAdapter(std::unique_ptr<LogAdapter> adapter);
  void RegisterLogAdapter(LogAdapter* adapter) { RegisterLogAdapter(std::unique_ptr<LogAdapter>(adapter)); }
  // Makes an instance of a registered service through one of its listed
  // factory methods. False, and object untouched, on any failure.
  bool CreateInstance(const std::string& serviceName, const std::string& method,
                      std::shared_ptr<ZObject>& object);

  // Time-out of one transaction with a sandboxed service (at most 2 s).
  void SetSandboxTimeout(std::chrono::milliseconds timeout);
  std::vector<ServiceInfo> Services() const;

 private:
  bool CreateLibrary(const ServiceInfo& info, const std::string& method, std::shared_ptr<ZObject>& object);
  bool CreateSandbox(const ServiceInfo& info, const std::string& method, std::shared_ptr<ZObject>& object);

  mutable std::mutex mutex_;
  std::vector<ServiceInfo> services_;
  std::chrono::milliseconds sandboxTimeout_;
  bool initialized_ = false;
};

}  // namespace tarn::zbrf

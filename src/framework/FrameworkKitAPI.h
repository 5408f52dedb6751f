#pragma once
// The built-in framework kit: the requests the container serves itself. A
// table from api uri to a handler object, filled once at start-up (each uri is
// also entered into the dispatch map, so GetAPIInfo finds it like a kit api),
// read without a lock afterwards, and emptied at process exit.
#include <map>
#include <string>

#include "kit/KitRuntimeHooks.h"
#include "pipeline/Records.h"

class ServerResCallBack;

// A handler keeps no per-request state: one object serves all requests and
// threads. It answers either through callback->Excute(text) or by writing the
// status (never both); the pipeline answers a non-"0" status itself.
class FrameworkReqHandlle {
 public:
  virtual void Excute(const std::string& uri, ServerResCallBack* callback,
                      const ConvertedRequest& request, ResponseStatus& status) = 0;
  virtual ~FrameworkReqHandlle() = default;
};

class FrameworkKitAPI {
 public:
  static FrameworkKitAPI& GetInstance();

  FrameworkKitAPI(const FrameworkKitAPI&) = delete;
  FrameworkKitAPI& operator=(const FrameworkKitAPI&) = delete;

  // Enters the uri into the dispatch map as a framework api and the handler
  // (made with new, owned from here on) into the table. A second registration
  // of a uri replaces the pointer without deleting the old object.
  void Register(const std::string& uri, FrameworkReqHandlle* handler);
  // Runs the uri's handler. Always true.
  bool Invoke(const std::string& uri, ServerResCallBack* callback, const ConvertedRequest& request,
              ResponseStatus& status);
  // The eleven framework apis, in their order of registration.
  void RegisterAll();

  // The handler under uri, or null (tests).
  FrameworkReqHandlle* Find(const std::string& uri) const;
  // Deletes every handler and empties the table (tests).
  void ClearForTesting();

 private:
  FrameworkKitAPI() = default;
  ~FrameworkKitAPI();

  std::map<std::string, FrameworkReqHandlle*> handlers_;
};

// The container's version as the framework apis state it.
inline constexpr const char* kFrameworkVersion = "6.7.0.300";

namespace tarn::framework {

// What the kit manager reaches through its runtime hooks: the framework's
// registrations and invoke, and the update state of the store and upgrade
// managers (through Services()). Install one object for the process's life
// with tarn::kit::SetKitRuntimeHooks before KitManagerApi::Init.
class FrameworkKitHooks : public tarn::kit::KitRuntimeHooks {
 public:
  bool IsUpdating() override;
  bool HasNewVersion() override;
  void RegisterFrameworkHandlers() override;
  bool FrameworkInvoke(const std::string& uri, ServerResCallBack* item, ConvertedRequest& request,
                       ResponseStatus& status) override;
};

}  // namespace tarn::framework

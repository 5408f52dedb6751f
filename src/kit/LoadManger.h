#pragma once
// The kit loader: brings kit libraries into the process, at start (one managed
// thread per start-up sub-kit, waited for at most two seconds) or on demand,
// checks them before and after the load, and calls their exported functions.
//
// A package is absent (no entry in loadedKits), present (a live handle) or
// dead (an entry with a null handle: loaded, but its entry function was
// missing). Present and dead are final: libraries are never unloaded, and a
// dead package is never loaded again in this process. Two requests that find
// a package absent may both load it; the second dlopen only raises the
// library's reference count, and the entry function runs twice.
#include <cstdint>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "config/ConfigRecords.h"
#include "pipeline/Records.h"
#include "platform/os/event.h"

class ServerResCallBack;

class LoadManger {
 public:
  static LoadManger& GetInstance();

  LoadManger(const LoadManger&) = delete;
  LoadManger& operator=(const LoadManger&) = delete;

  // package name -> dlopen handle; null for a dead package.
  std::map<std::string, void*>* loadedKits;
  // [0] the process exit event, then one completion event per started loader
  // thread. Touched only by the thread in LoadAllKit.
  std::vector<std::shared_ptr<tarn::os::Event>> kitSignals;

  // Starts a loader thread for each start-up sub-kit of the configuration and
  // waits for them at most two seconds (RcvKitsSignal). Always true.
  bool LoadAllKit();
  // Thread function; its argument is the ThreadParam whose arg is the SubKitConfig.
  static std::uint32_t LoadWorkerThread(void* param);
  // Waits for the loader threads' events, the exit event, or two seconds.
  void RcvKitsSignal();

  // The start-up load of one sub-kit: skips what isn't "startup" or is under a
  // force update ("1"), else the five-argument load.
  bool LoadKit(const std::string& packageName, SubKitConfig* subKit);
  // Loads one library: signature, dlopen, manifest code, table entry, entry
  // function. True only when the library was newly loaded and its entry
  // function returned.
  bool LoadKit(std::string packageName, std::string fileName, std::string type,
               std::string entry, std::string kitManifVerify);
  // Loads the start-up sub-kits of one package on this thread.
  bool LoadKitDll(const std::string& packageName);
  // Whether the table has an entry for the package, also a dead one.
  bool HasKit(std::string packageName);

  // Compares the library's verification string (id 199) with the manifest's
  // digest. True: the load may go on.
  bool CompareVerifyCode(void*& module, const std::string& kitManifVerify);

  // Calls the api's exported function with the request's texts and an answer
  // callback. True when the function was called and has returned.
  bool Invoke(KitApiDetailInfo& api, ServerResCallBack* item, ConvertedRequest& request,
              ResponseStatus& status);
  // Calls the kit's event function; its answer is only logged.
  bool NotifyWinEventToKit(KitApiDetailInfo& api, ConvertedRequest& request,
                           ResponseStatus& status);
  // header.syncMessageId of an answer, empty when it can't be read.
  void GetJsonFieldForSyncMessageId(std::string text, std::string& syncMessageId);

  // Library file of a sub-kit: <install>/kits/<package>/<fileName>.
  static std::string KitLibraryPath(const std::string& packageName, const std::string& fileName);

  // Forgets every entry (the libraries stay mapped), for tests that start over.
  void ResetForTesting();

 private:
  LoadManger();

  // The handle of a package: true with the handle (maybe null) when present.
  bool FindKit(const std::string& packageName, void*& handle);
  void SetKit(const std::string& packageName, void* handle);

  // An api's exported function, looked up in the kit once it has been found
  // there (a live kit's library is never closed); a missing one is looked up
  // again at each call, so it shows whenever it is asked for.
  void* FindApiFunction(void* module, const std::string& apiName);

  // Keeps readers off the table while an on-demand load inserts into it; never
  // held across a load or a call into a kit.
  std::shared_mutex tableMutex_;
  std::shared_mutex exportsMutex_;
  std::map<void*, std::map<std::string, void*>> exports_;  // module -> api -> function
};

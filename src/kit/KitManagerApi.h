#pragma once
// The door of the kit runtime: the start-up order of the kits (configuration
// first, loading second) and the decision tree that takes one parsed request
// from the dispatch map to the built-in framework kit or to a kit library.
//
// Request execution calls Invoke on the thread that delivered the request;
// its contract with the pipeline: a refusal is written to the status and the
// client has not been answered; status "0" means the request was taken (the
// answer may already have gone, and the item may already be deleted).
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "config/ConfigRecords.h"
#include "pipeline/Records.h"

class ServerResCallBack;

// Serialises Init and InitKitsForUpdate; requests don't take it.
extern std::mutex kitInitMutex;

class KitManagerApi {
 public:
  static KitManagerApi& GetInstance();

  KitManagerApi(const KitManagerApi&) = delete;
  KitManagerApi& operator=(const KitManagerApi&) = delete;

  // False until Init has run, then true for good; read by request threads
  // and the event fan-out without a lock.
  std::atomic<bool> isInitComplete{false};

  // Once per process: registers the framework handlers, reads the
  // configuration and loads the start-up kits (at most two seconds). The
  // result says whether the kits came up; "init complete" is set either way.
  bool Init();
  // Configuration, then the start-up loads. The caller holds kitInitMutex.
  bool InitKit();
  bool InitKitConfig();
  bool InitKitLoad();
  // InitKit again after a kit update; loaded kits stay as they are. Always true.
  bool InitKitsForUpdate();

  // The top of the decision tree. Lower-cases request.api_name.
  bool Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* item,
              ResponseStatus& status);
  // The kit branch: force update, load on demand, API level, permission, call.
  bool InvokeToKit(KitApiDetailInfo& api, RequestHeader& header, ConvertedRequest& request,
                   ServerResCallBack* item, ResponseStatus& status);
  // Delivers a system event (texts in request.header and request.body) to
  // the kit behind request.api_name.
  bool NotifyWinEventToKit(ConvertedRequest& request, ResponseStatus& status);

  // The API gates and the core-process test.
  bool CheckApiLevel(RequestHeader& header, ResponseStatus& status);
  bool CheckApiPermission(ServerResCallBack* item, ConvertedRequest& request, RequestHeader& header,
                          ResponseStatus& status);
  bool IsTarnCorerequest(std::uint32_t processId, RequestHeader& header);
  bool CheckIsInstallationPath(std::string path);

  // Clears "init complete", for tests that run Init again.
  void ResetForTesting();

 private:
  KitManagerApi() = default;
};

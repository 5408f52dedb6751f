#pragma once
// One request's way back to its caller. Made by ServerManager::OnMsgCallback,
// owned by the callback table, and ended by exactly one call of Excute (a
// result) or ExcuteError (a failure); after either returns the object is gone.
//
// It keeps its own RequestHeader and ResponseStatus (header and status refer to
// them), so an answer that comes after OnMsgCallback has returned (a kit
// answering later from its own thread) still finds them.
#include <cstdint>
#include <string>

#include "pipeline/Records.h"
#include "platform/ipc/ipc_message.h"

class ServerResCallBack {
 public:
  // Copies the item's text (up to its first zero byte), its id, and the two
  // records.
  ServerResCallBack(const TagIPCMessageItem& item, uint32_t callerPid,
                    const RequestHeader& header, const ResponseStatus& status);
  // Only ServerManager::RemoveCallBack deletes an object in the table.
  ~ServerResCallBack() = default;
  ServerResCallBack(const ServerResCallBack&) = delete;
  ServerResCallBack& operator=(const ServerResCallBack&) = delete;

  // Sends a result: a text holding "header" (quoted) goes out as it is, any
  // other text is wrapped as the body under reqHeader. Ends the object.
  void Excute(std::string& response);
  // Sends the failure in status with empty identity fields and an empty body.
  // Ends the object.
  void ExcuteError(ResponseStatus& status);

  uint32_t callerPid = 0;
  bool isTarnCoreRequest = false;
  std::string msgIdentify;  // decimal text of the item's syncMessageId
  std::string requestText;
  std::string requestTextCopy;
  const TagIPCMessageItem* item = nullptr;  // valid only inside OnMsgCallback; unused after
  std::string reqHeader;                    // rendered response header, once verified
  uint32_t startTicks = 0;
  uint32_t elapsedTicks = 0;

 private:
  RequestHeader ownHeader_;
  ResponseStatus ownStatus_;

 public:
  RequestHeader& header = ownHeader_;
  ResponseStatus& status = ownStatus_;
};

#pragma once
// Sending side of the IPC library. One class, two kinds, chosen by the own address:
//
//  - IpcAddressContainer (0x710000): the container's sender. It attaches to the
//    TarnCoreIPCMessageServer started last in this process. Its callbacks receive
//    what clients send (on the server's workers); PostIPCMessage answers the
//    connection that last sent item.syncMessageId; BroadcastMessage goes to every
//    open connection.
//  - any other address (clients use IpcAddressClientSide, 0x700000): a connection
//    to $TARNCORE_ROOT/run/tarncore/ipc.sock. Callbacks receive what the container
//    sends (responses, broadcasts) on a thread of the library; SendMessageSync
//    sends a request and waits for the response with the same syncMessageId.
//
// Every send copies the body before it returns: the caller may free it at once.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/ipc/ipc_message.h"

namespace tarn::ipc {
class ClientImpl;
}

class TarnCoreIPCMessageClient {
 public:
  using Callback = std::function<void(TagIPCMessageItem&)>;

  // connectNow: connect in the constructor (else on the first send).
  // reconnect: after the container went away, the next send connects again
  //   (else the client stays disconnected and sends report failure).
  // A container-side client ignores both.
  TarnCoreIPCMessageClient(uint32_t ownAddress, bool connectNow, bool reconnect);
  // Stops callbacks and closes the connection.
  ~TarnCoreIPCMessageClient();
  TarnCoreIPCMessageClient(const TarnCoreIPCMessageClient&) = delete;
  TarnCoreIPCMessageClient& operator=(const TarnCoreIPCMessageClient&) = delete;

  // Delivers each message of this code on a library thread. The item and its
  // body belong to the library and live until the callback returns.
  bool RegisterMessageCallback(uint32_t messageCode, Callback callback);
  // Removes every callback and waits for those still running on other threads;
  // no callback runs after it returns.
  bool UnRegisterMessageCallbackAll();

  // Sends item (bodySize bytes of body; a null body sends none).
  bool PostIPCMessage(const TagIPCMessageItem& item);
  // Container side: to every connection, true when at least one took it.
  // Client side: the same as PostIPCMessage.
  bool BroadcastMessage(const TagIPCMessageItem& item);

  // Client side only. Sends request and waits up to timeoutMs for the message
  // of code IpcResponseMessageCode with the same syncMessageId; response gets its
  // text up to the first zero byte. Returns 0 or a client code:
  //   9000 request has no body; 9001 the container can't be reached or the send
  //   failed; 9002 the connection ended or broke before the answer; 9003 time-out;
  //   9004 timeoutMs not positive; 9005 the id is already awaited on this client,
  //   or this is a container-side client.
  int SendMessageSync(const TagIPCMessageItem& request, std::string& response, int timeoutMs);

  bool IsConnected() const;

 private:
  std::unique_ptr<tarn::ipc::ClientImpl> impl_;
};

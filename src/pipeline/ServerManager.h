#pragma once
// The container's end of the IPC library: takes each request message, opens a
// ServerResCallBack for it in the callback table and runs RequestInvoke on the
// delivering thread; sends responses by syncMessageId and broadcasts to every
// connected client. One object per process (GetInstance).
//
// A kit's answer finds its callback in one of two ways: the ServerResCallBack*
// that RequestGates::Invoke was given (valid until Excute/ExcuteError), or, for
// an answer that carries header.syncMessageId, GetServerResCallBackByMessageId
// with that text. Either way the answer leaves through ServerResCallBack::Excute.
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "platform/ipc/ipc_client.h"
#include "platform/ipc/ipc_message.h"
#include "platform/ipc/ipc_server.h"

class ServerResCallBack;

// The IPC library's two objects, made by ServerInit.
extern TarnCoreIPCMessageServer* g_tarnCoreIpcServer;
extern TarnCoreIPCMessageClient* g_tarnCoreIpcSender;
// Guards the writers of ServerManager::callbackTable.
extern std::mutex callbackTableLock;

class ServerManager {
 public:
  static ServerManager& GetInstance();

  // What kits are given to broadcast with: logs, then BroadcastMessage(text).
  std::function<void(char*)> broadcastSendHandle;
  // msgIdentify -> the request's callback; owned here.
  std::map<std::string, ServerResCallBack*>* callbackTable;

  // Opens the endpoint: server, then the container's sender, then the request
  // callback. On failure it logs and the container runs without IPC.
  void ServerInit();
  // Closes what ServerInit opened and frees every callback still in the table,
  // so ServerInit can run again (tests; an orderly stop). Not called by the
  // container, whose endpoint lives as long as the process.
  void ServerUnInit();

  void OnMsgCallback(TagIPCMessageItem& item);
  // Erases the table's entry under the callback's msgIdentify and deletes it.
  void RemoveCallBack(ServerResCallBack* callback);
  // The response item (0x660008) with this id and text (plus its terminator).
  bool SendIpcMessage(const std::string& text, int32_t syncMessageId);
  // Fills a broadcast item (0x80035, a fresh random id) with a copy of text;
  // the caller frees item.body with delete[].
  void BroadcastIPCMessageItem(TagIPCMessageItem& item, const std::string& text);
  void BroadcastMessage(const std::string& text);
  void SendServiceStartBroadcast();
  void SendUserConfirmBroadcast(int isUserAgree);
  void SendUpdateFailedBroadcast(std::string result);

  // The table's callback under msgIdentify, null when absent.
  ServerResCallBack* GetServerResCallBackByMessageId(const std::string& msgIdentify);

  // Entries in the table (tests).
  std::size_t CallbackCount();

  ServerManager(const ServerManager&) = delete;
  ServerManager& operator=(const ServerManager&) = delete;

 private:
  ServerManager();
  // Never destroyed: kits' threads run on through the program's exit and may
  // answer then, through a callback of the table and this object.
  ~ServerManager() = delete;
};

// The id of a broadcast: nine random bytes written in decimal, joined, cut to
// nine digits.
int32_t MakeBroadcastSyncMessageId();

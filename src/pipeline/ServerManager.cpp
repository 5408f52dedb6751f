#include "pipeline/ServerManager.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "pipeline/RequestGates.h"
#include "pipeline/RequestInvoke.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/log/tarn_log.h"
#include "platform/os/random.h"

TarnCoreIPCMessageServer* g_tarnCoreIpcServer = nullptr;
TarnCoreIPCMessageClient* g_tarnCoreIpcSender = nullptr;
std::mutex callbackTableLock;

ServerManager& ServerManager::GetInstance() {
  static ServerManager* instance = new ServerManager;
  return *instance;
}

ServerManager::ServerManager()
    : callbackTable(new std::map<std::string, ServerResCallBack*>) {
  broadcastSendHandle = [this](char* text) {
    CLOGI("ServerManager::broadcastSendHandle", "ServerManager.broadcastSendHandle start.");
    std::string message(text ? text : "");
    BroadcastMessage(message);
    CLOGI("ServerManager::broadcastSendHandle", "ServerManager.broadcastSendHandle end.");
  };
}

void ServerManager::ServerInit() {
  g_tarnCoreIpcServer = new (std::nothrow) TarnCoreIPCMessageServer();
  if (!g_tarnCoreIpcServer) {
    CLOGE("ServerManager::ServerInit", "ServerInit failed. g_tarnCoreIpcServer is null");
    return;
  }
  g_tarnCoreIpcServer->Start();
  g_tarnCoreIpcSender = new (std::nothrow) TarnCoreIPCMessageClient(IpcAddressContainer, true, true);
  if (!g_tarnCoreIpcSender) {
    CLOGE("ServerManager::ServerInit", "ServerInit failed. g_tarnCoreIpcSender is null");
    return;
  }
  g_tarnCoreIpcSender->RegisterMessageCallback(
      IpcRequestMessageCode, [this](TagIPCMessageItem& item) { OnMsgCallback(item); });
}

void ServerManager::ServerUnInit() {
  if (g_tarnCoreIpcSender) {
    g_tarnCoreIpcSender->UnRegisterMessageCallbackAll();
    delete g_tarnCoreIpcSender;
    g_tarnCoreIpcSender = nullptr;
  }
  if (g_tarnCoreIpcServer) {
    g_tarnCoreIpcServer->Stop();
    delete g_tarnCoreIpcServer;
    g_tarnCoreIpcServer = nullptr;
  }
  std::lock_guard lock(callbackTableLock);
  for (auto& [id, callback] : *callbackTable) delete callback;
  callbackTable->clear();
}

void ServerManager::OnMsgCallback(TagIPCMessageItem& item) {
  CLOGI("ServerManager::OnMsgCallback", "ServerManager.OnMsgCallback begin.");
  if (item.messageCode == IpcRequestMessageCode) {
    uint32_t callerPid =
        g_tarnCoreIpcServer ? g_tarnCoreIpcServer->GetCallerPidByMsgId(item.syncMessageId) : 0;
    CLOGI("ServerManager::OnMsgCallback", "ServerManager.OnMsgCallback syncMessageId = "
                                              << item.syncMessageId << " callerPid = " << callerPid);
    if (callerPid != 0) {
      RequestHeader header;
      ResponseStatus status;
      auto* callback = new ServerResCallBack(item, callerPid, header, status);
      {
        std::unique_lock lock(callbackTableLock);
        try {
          // An id already present is overwritten; its old callback is orphaned.
          (*callbackTable)[callback->msgIdentify] = callback;
        } catch (...) {
          lock.unlock();
          CLOGE("ServerManager::OnMsgCallback", "OnMsgCallback addCallback failed.");
        }
      }
      RequestInvoke::Excute(callback);
    }
  }
  CLOGI("ServerManager::OnMsgCallback", "ServerManager.OnMsgCallback end.");
}

void ServerManager::RemoveCallBack(ServerResCallBack* callback) {
  try {
    std::lock_guard lock(callbackTableLock);
    callbackTable->erase(callback->msgIdentify);
    delete callback;
  } catch (...) {
    CLOGE("ServerManager::RemoveCallBack", "ServerManager RemoveCallBack failed.");
  }
}

bool ServerManager::SendIpcMessage(const std::string& text, int32_t syncMessageId) {
  CLOGD("ServerManager::SendIpcMessage", "SendIPCMessage start.");
  TagIPCMessageItem item;
  item.target = IpcAddressClientSide;
  item.source = IpcAddressContainer;
  item.messageCode = IpcResponseMessageCode;
  item.subCode = 0;
  item.reserved = -1;
  item.syncMessageId = syncMessageId;
  // The library copies the body before the post returns, and a std::string's
  // text is already zero-terminated: post it in place instead of copying.
  item.body = const_cast<char*>(text.c_str());
  item.bodySize = static_cast<uint32_t>(text.size() + 1);
  item.bodyIsHeld = 1;
  if (g_tarnCoreIpcSender && g_tarnCoreIpcSender->PostIPCMessage(item)) {
    CLOGD("ServerManager::SendIpcMessage", "SendIPCMessage end.");
    return true;
  }
  CLOGE("ServerManager::SendIpcMessage", "PostIPCMessage failed!");
  return false;
}

int32_t MakeBroadcastSyncMessageId() {
  uint8_t bytes[9] = {};  // stays zero if the random source fails
  tarn::os::CryptGenRandom(sizeof(bytes), bytes);
  std::string digits;
  for (uint8_t b : bytes) digits += std::to_string(static_cast<unsigned>(b));
  digits.resize(9);  // nine bytes give at least nine digits
  return std::atoi(digits.c_str());
}

void ServerManager::BroadcastIPCMessageItem(TagIPCMessageItem& item, const std::string& text) {
  item.target = 0;
  item.source = IpcAddressContainer;
  item.messageCode = IpcBroadcastMessageCode;
  item.subCode = IpcBroadcastMessageCode;
  item.syncMessageId = MakeBroadcastSyncMessageId();
  item.bodyIsHeld = 1;
  item.bodySize = static_cast<uint32_t>(text.size() + 1);
  item.body = new (std::nothrow) char[text.size() + 1];
  if (!item.body) {
    CLOGE("ServerManager::BroadcastIPCMessageItem", "BroadcastIPCMessageItem failed. body is null");
    return;
  }
  std::memcpy(item.body, text.c_str(), text.size() + 1);
}

void ServerManager::BroadcastMessage(const std::string& text) {
  CLOGD("ServerManager::BroadcastMessage", "ClientManager.BroadcastMessage start");
  TagIPCMessageItem item;
  item.reserved = -1;
  BroadcastIPCMessageItem(item, text);
  bool ok = g_tarnCoreIpcSender && g_tarnCoreIpcSender->BroadcastMessage(item);
  delete[] item.body;
  if (ok) {
    CLOGD("ServerManager::BroadcastMessage", "ClientManager.BroadcastMessage success");
  } else {
    CLOGE("ServerManager::BroadcastMessage", "ClientManager.BroadcastMessage fail.");
  }
}

void ServerManager::SendServiceStartBroadcast() {
  CLOGD("ServerManager::SendServiceStartBroadcast", "ServerManager.SendServiceStartBroadcast start.");
  std::string message;
  RequestGates::Get().GetNotifyMsg("com.vantrel.tarn.updateKit", 0, message);
  BroadcastMessage(message);
  CLOGD("ServerManager::SendServiceStartBroadcast", "ServerManager.SendServiceStartBroadcast end.");
}

void ServerManager::SendUserConfirmBroadcast(int isUserAgree) {
  // The log lines name the service-start broadcast; that is how they read.
  CLOGD("ServerManager::SendUserConfirmBroadcast", "ServerManager.SendServiceStartBroadcast start.");
  std::string message;
  RequestGates::Get().GetNotifyMsg("com.vantrel.tarn.updateKitUserConfirm", isUserAgree, message);
  BroadcastMessage(message);
  CLOGD("ServerManager::SendUserConfirmBroadcast", "ServerManager.SendServiceStartBroadcast end.");
}

void ServerManager::SendUpdateFailedBroadcast(std::string result) {
  CLOGD("ServerManager::SendUpdateFailedBroadcast", "ServerManager.SendUpdateFailedBroadcast start.");
  std::string message;
  RequestGates::Get().GetUpdateKitResultMsg(result, message);
  CLOGI("ServerManager::SendUpdateFailedBroadcast", "For forceUpdate failed, broadcastMsg = " << message);
  BroadcastMessage(message);
  CLOGD("ServerManager::SendUpdateFailedBroadcast", "ServerManager.SendUpdateFailedBroadcast end.");
}

ServerResCallBack* ServerManager::GetServerResCallBackByMessageId(const std::string& msgIdentify) {
  // Taken briefly so the read never races an insertion's rebalancing.
  std::lock_guard lock(callbackTableLock);
  auto it = callbackTable->find(msgIdentify);
  return it == callbackTable->end() ? nullptr : it->second;
}

std::size_t ServerManager::CallbackCount() {
  std::lock_guard lock(callbackTableLock);
  return callbackTable->size();
}

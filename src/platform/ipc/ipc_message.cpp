#include "platform/ipc/ipc_message.h"

#include <cstring>

#include "platform/os/places.h"
#include "platform/os/random.h"

namespace tarn::ipc {
namespace {

void PutU32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

uint32_t GetU32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

}  // namespace

const char* ClientCodeText(int code) {
  switch (code) {
    case kClientOk: return "success";
    case kClientDataFormatError: return "data format is error.";
    case kClientServiceNotUsed: return "TarnCoreService is not usered.";
    case kClientResponseError: return "TarnCoreService resonse error.";
    case kClientTimeout: return "Sending Message is TimeOut.";
    case kClientBadTimeout: return "Input param timeout is error.";
    case kClientInnerError: return "basesdk inner error.";
    default: return "";
  }
}

void EncodeFrameHeader(const TagIPCMessageItem& item, unsigned char out[kFrameHeaderSize]) {
  PutU32(out + 0, item.target);
  PutU32(out + 4, item.source);
  PutU32(out + 8, item.messageCode);
  PutU32(out + 12, item.subCode);
  PutU32(out + 16, static_cast<uint32_t>(item.reserved));
  PutU32(out + 20, static_cast<uint32_t>(item.syncMessageId));
  PutU32(out + 24, item.bodySize);
  out[28] = item.bodyIsHeld;
  out[29] = out[30] = out[31] = 0;
}

HeaderCheck DecodeFrameHeader(const unsigned char in[kFrameHeaderSize], TagIPCMessageItem& item) {
  if (in[29] != 0 || in[30] != 0 || in[31] != 0) return HeaderCheck::Garbage;
  item.target = GetU32(in + 0);
  item.source = GetU32(in + 4);
  item.messageCode = GetU32(in + 8);
  item.subCode = GetU32(in + 12);
  item.reserved = static_cast<int32_t>(GetU32(in + 16));
  item.syncMessageId = static_cast<int32_t>(GetU32(in + 20));
  item.bodySize = GetU32(in + 24);
  item.bodyIsHeld = in[28];
  item.body = nullptr;
  if (item.bodySize > kMaxBodySize) return HeaderCheck::TooLarge;
  return HeaderCheck::Ok;
}

std::string SocketPath() { return os::RuntimeDir() + "/ipc.sock"; }

TagIPCMessageItem ClientRequest(const std::string& text, int32_t syncMessageId) {
  TagIPCMessageItem item;
  item.target = IpcAddressContainer;
  item.source = IpcAddressClientSide;
  item.messageCode = IpcRequestMessageCode;
  item.subCode = 0;
  item.reserved = -1;
  item.syncMessageId = syncMessageId;
  item.body = const_cast<char*>(text.c_str());
  item.bodySize = static_cast<uint32_t>(text.size() + 1);
  return item;
}

int32_t RandomSyncMessageId() {
  uint32_t v = 0;
  os::CryptGenRandom(sizeof(v), reinterpret_cast<uint8_t*>(&v));
  return static_cast<int32_t>((v & 0x7fffffff) | 1);
}

}  // namespace tarn::ipc

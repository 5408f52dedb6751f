#pragma once
// The record that crosses the IPC library's boundary, the addresses and codes
// the container and its clients use, and the 32-byte frame header that carries
// a record over the socket (all integers little-endian):
//
//   0 u32 target | 4 u32 source | 8 u32 messageCode | 12 u32 subCode
//  16 i32 reserved | 20 i32 syncMessageId | 24 u32 bodySize | 28 u8 bodyIsHeld
//  29..31 zero
//
// followed by bodySize bytes of body.
#include <cstddef>
#include <cstdint>
#include <string>

struct TagIPCMessageItem {
  uint32_t target = 0;
  uint32_t source = 0;
  uint32_t messageCode = 0;
  uint32_t subCode = 0;
  int32_t reserved = 0;
  int32_t syncMessageId = 0;
  uint32_t bodySize = 0;
  char* body = nullptr;
  uint8_t bodyIsHeld = 0;
};

constexpr uint32_t IpcAddressClientSide = 0x700000;
constexpr uint32_t IpcAddressContainer = 0x710000;
constexpr uint32_t IpcRequestMessageCode = 0x80034;
constexpr uint32_t IpcResponseMessageCode = 0x660008;
constexpr uint32_t IpcBroadcastMessageCode = 0x80035;

namespace tarn::ipc {

constexpr std::size_t kFrameHeaderSize = 32;
// Larger frames are refused: the peer is cut off.
constexpr uint32_t kMaxBodySize = 16u * 1024 * 1024;

// The client library's own failures (the 9000 series of the status table).
enum ClientCode : int {
  kClientOk = 0,
  kClientDataFormatError = 9000,   // "data format is error."
  kClientServiceNotUsed = 9001,    // cannot reach the container
  kClientResponseError = 9002,     // connection lost or answer unreadable
  kClientTimeout = 9003,           // "Sending Message is TimeOut."
  kClientBadTimeout = 9004,        // time-out argument not positive
  kClientInnerError = 9005,        // resources, duplicate id, wrong kind of client
};
// The status text of a client code, as the status table words it; "" for others.
const char* ClientCodeText(int code);

enum class HeaderCheck { Ok, Garbage, TooLarge };

// Writes the header fields of item (not the body) into out.
void EncodeFrameHeader(const TagIPCMessageItem& item, unsigned char out[kFrameHeaderSize]);
// Reads a header into item (body left null). Garbage: the zero padding isn't
// zero; TooLarge: bodySize above kMaxBodySize.
HeaderCheck DecodeFrameHeader(const unsigned char in[kFrameHeaderSize], TagIPCMessageItem& item);

// $TARNCORE_ROOT/run/tarncore/ipc.sock
std::string SocketPath();

// A client's request frame around text (which must outlive the item): the
// addresses and codes of a request, reserved -1, the terminating zero counted.
TagIPCMessageItem ClientRequest(const std::string& text, int32_t syncMessageId);
// A positive, non-zero id from the system's random source, for a client that
// has no sequence of its own.
int32_t RandomSyncMessageId();

}  // namespace tarn::ipc

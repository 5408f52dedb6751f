#pragma once
// The frames between a host and its sandboxed service, over two socketpairs:
// calls and their replies on one, one-way requests (notes) on the other.
//   request: u32 code, u32 flags, u32 length, data[length]
//   reply:   u8 ok,   u32 length, reply[length]
// All integers little-endian. One reply is awaited at a time; a request with
// kFlagOneWay (zobject.h) among its flags gets no reply.
#include <cstdint>
#include <string>

namespace tarn::zbrf::frame {

// The sandboxed program finds its ends of the socketpairs here.
inline constexpr int kChannelFd = 3;
inline constexpr int kNoteFd = 4;
inline constexpr uint32_t kMaxPayload = 16u * 1024u * 1024u;
inline constexpr std::size_t kRequestHead = 12;
inline constexpr std::size_t kReplyHead = 5;
// Transport flags, never passed on to the service. kNotesAhead: notes were
// written since the last call and are to be served before this one.
// kAnswerAnyway: a one-way request sent as a call, whose (empty) answer says
// only that it was taken.
inline constexpr uint32_t kNotesAhead = 0x80000000u;
inline constexpr uint32_t kAnswerAnyway = 0x40000000u;
inline constexpr uint32_t kTransportFlags = kNotesAhead | kAnswerAnyway;
// A note up to this size leaves in one piece, so that notes written at once
// by several threads can't interleave.
inline constexpr std::size_t kWholeNote = 4096;

inline void PutU32(std::string& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

inline uint32_t GetU32(const unsigned char* in) {
  return static_cast<uint32_t>(in[0]) | static_cast<uint32_t>(in[1]) << 8 |
         static_cast<uint32_t>(in[2]) << 16 | static_cast<uint32_t>(in[3]) << 24;
}

inline std::string EncodeRequest(uint32_t code, uint32_t flags, const std::string& data) {
  std::string out;
  out.reserve(kRequestHead + data.size());
  PutU32(out, code);
  PutU32(out, flags);
  PutU32(out, static_cast<uint32_t>(data.size()));
  out += data;
  return out;
}

inline void AddFlags(std::string& request, uint32_t flags) {
  for (int i = 0; i < 4; ++i) request[4 + i] = static_cast<char>(request[4 + i] | ((flags >> (8 * i)) & 0xFF));
}

inline std::string EncodeReply(bool ok, const std::string& reply) {
  std::string out;
  out.reserve(kReplyHead + reply.size());
  out.push_back(ok ? 1 : 0);
  PutU32(out, static_cast<uint32_t>(reply.size()));
  out += reply;
  return out;
}

}  // namespace tarn::zbrf::frame

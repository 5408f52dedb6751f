#include <gtest/gtest.h>

#include <cstring>

#include "platform/ipc/ipc_message.h"

namespace {

using tarn::ipc::HeaderCheck;

TEST(IpcFrame, HeaderIsLittleEndianByteForByteAndPaddingMustBeZero) {
  TagIPCMessageItem item;
  item.target = 0x700000;
  item.source = 0x710000;
  item.messageCode = 0x660008;
  item.subCode = 0x80035;
  item.reserved = -1;
  item.syncMessageId = -2;
  item.bodySize = 0x00020304;
  item.bodyIsHeld = 1;
  unsigned char out[32], again[32];
  std::memset(out, 0xAA, sizeof(out));
  tarn::ipc::EncodeFrameHeader(item, out);
  const unsigned char expected[32] = {
      0x00, 0x00, 0x70, 0x00,  0x00, 0x00, 0x71, 0x00,  0x08, 0x00, 0x66, 0x00,
      0x35, 0x00, 0x08, 0x00,  0xFF, 0xFF, 0xFF, 0xFF,  0xFE, 0xFF, 0xFF, 0xFF,
      0x04, 0x03, 0x02, 0x00,  0x01, 0x00, 0x00, 0x00};
  EXPECT_EQ(0, std::memcmp(out, expected, sizeof(out)));
  TagIPCMessageItem back;
  ASSERT_EQ(HeaderCheck::Ok, tarn::ipc::DecodeFrameHeader(out, back));
  tarn::ipc::EncodeFrameHeader(back, again);
  EXPECT_EQ(0, std::memcmp(again, expected, sizeof(again)));
  // Non-zero padding is no frame. The 16 MiB limit is tried on the socket.
  out[31] = 1;
  EXPECT_EQ(HeaderCheck::Garbage, tarn::ipc::DecodeFrameHeader(out, back));
}

}  // namespace

#include "container/pipe_message.h"

#include <gtest/gtest.h>

#include <string>

using namespace tarn::container;

TEST(PipeMessage, Utf16leRoundTripAndWorkStatus) {
  const std::string bytes = ToPipeBytes(NotifyWinEventText(5, 2));
  EXPECT_EQ(bytes, std::string("N\0o\0t\0i\0f\0y\0W\0i\0n\0E\0v\0e\0n\0t\0005\0E\0v\0e\0n\0t\0I\0d\0002\0", 46));
  EXPECT_EQ(FromPipeBytes(bytes + "x"), "NotifyWinEvent5EventId2");  // a trailing odd byte is dropped
  EXPECT_EQ(FindWorkStatus("NotifyWorkStatus1"), 1);
  EXPECT_EQ(FindWorkStatus("NotifyWorkStatus"), std::nullopt);
  EXPECT_EQ(FindWorkStatus("junkNotifyWorkStatusNotifyWorkStatus0"), 0);
  EXPECT_EQ(FindWorkStatus("NotifyWinEvent5EventId2"), std::nullopt);
  EXPECT_EQ(WorkStatusText(1), "NotifyWorkStatus1");
}

// Scanning is tested through the listener, with what the pipe delivers.
TEST(PipeMessage, ExitHandleTextAsPercentP) {
  EXPECT_EQ(FormatExitHandle(0x1f), "0x1f");
  // Nothing readable leaves the null handle.
  for (auto [text, handle] : {std::pair{L"0x1f", 0x1f}, {L"1f", 0x1f}, {L"0X3", 3}, {L"", 0}, {L"zz", 0}, {L" ", 0}}) {
    EXPECT_EQ(ScanExitHandle(text), handle);
  }
}

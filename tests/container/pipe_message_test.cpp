#include "container/pipe_message.h"

#include <gtest/gtest.h>

#include <string>

using namespace tarn::container;

namespace {

// Zero-ended UTF-16 from ASCII, as the listener's cleared buffer holds it.
std::u16string U16(std::string_view ascii) { return std::u16string(ascii.begin(), ascii.end()); }

}  // namespace

TEST(PipeMessage, NotifyWinEventRoundTripsThroughUtf16le) {
  const std::string bytes = ToPipeBytes(NotifyWinEventText(5, 2));
  ASSERT_EQ(bytes.size(), 2 * std::string("NotifyWinEvent5EventId2").size());
  EXPECT_EQ(bytes.substr(0, 4), std::string("N\0o\0", 4));
  EXPECT_EQ(FromPipeBytes(bytes), "NotifyWinEvent5EventId2");
  // A trailing odd byte cannot form a unit and is dropped.
  EXPECT_EQ(FromPipeBytes(bytes + "x"), "NotifyWinEvent5EventId2");
}

TEST(PipeMessage, ScanNeedsBothNumbers) {
  std::uint32_t type = 99, session = 99;
  EXPECT_TRUE(ScanNotifyWinEvent(U16("NotifyWinEvent5EventId2").c_str(), type, session));
  EXPECT_EQ(type, 5u);
  EXPECT_EQ(session, 2u);

  EXPECT_TRUE(ScanNotifyWinEvent(U16("NotifyWinEvent0EventId0").c_str(), type, session));
  EXPECT_EQ(type, 0u);
  EXPECT_EQ(session, 0u);

  for (const char* bad : {"NotifyWinEvent7", "NotifyWinEvent7EventId", "notifywinevent5EventId2",
                          "", "xNotifyWinEvent5EventId2", "NotifyWinEventEventId2"}) {
    EXPECT_FALSE(ScanNotifyWinEvent(U16(bad).c_str(), type, session)) << bad;
  }
}

TEST(PipeMessage, ScanReadsOnlyTheFirstOfTwoMessages) {
  std::uint32_t type = 0, session = 0;
  ASSERT_TRUE(ScanNotifyWinEvent(U16("NotifyWinEvent7EventId3NotifyWinEvent8EventId4").c_str(),
                                 type, session));
  EXPECT_EQ(type, 7u);
  EXPECT_EQ(session, 3u);
}

TEST(PipeMessage, ScanKeepsTheLow32BitsOfLargeNumbers) {
  std::uint32_t type = 1, session = 1;
  ASSERT_TRUE(ScanNotifyWinEvent(U16("NotifyWinEvent4294967296EventId4294967301").c_str(), type,
                                 session));
  EXPECT_EQ(type, 0u);
  EXPECT_EQ(session, 5u);
}

TEST(PipeMessage, FindWorkStatus) {
  EXPECT_EQ(FindWorkStatus("NotifyWorkStatus1"), 1);
  EXPECT_EQ(FindWorkStatus("NotifyWorkStatus"), std::nullopt);
  EXPECT_EQ(FindWorkStatus("junkNotifyWorkStatusNotifyWorkStatus0"), 0);
  EXPECT_EQ(FindWorkStatus("NotifyWinEvent5EventId2"), std::nullopt);
  EXPECT_EQ(WorkStatusText(1), "NotifyWorkStatus1");
}

TEST(PipeMessage, ExitHandleTextAsPercentP) {
  EXPECT_EQ(FormatExitHandle(3), "0x3");
  EXPECT_EQ(FormatExitHandle(0x1f), "0x1f");
  EXPECT_EQ(ScanExitHandle(L"0x1f"), 0x1f);
  EXPECT_EQ(ScanExitHandle(L"1f"), 0x1f);
  EXPECT_EQ(ScanExitHandle(L"0X3"), 3);
  // Nothing readable leaves the null handle.
  EXPECT_EQ(ScanExitHandle(L""), 0);
  EXPECT_EQ(ScanExitHandle(L"zz"), 0);
  EXPECT_EQ(ScanExitHandle(L" "), 0);
}

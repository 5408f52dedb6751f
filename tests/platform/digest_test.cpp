#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/commonutil/de.h"
#include "platform/os/text.h"
#include "support/temp_root.h"

TEST(Digest, IsSha256InUpperCaseAndUnreadableGivesEmpty) {
  tarn::test::TempRoot root;
  std::string content;  // every byte value, zero too, over more than one read
  for (int i = 0; i < 100000; ++i) content += static_cast<char>(i * 7);
  root.WriteFile("blob", content);
  EXPECT_EQ(DE::GetFileSha256Hex(root.At("blob")),
            "931030B89F42C06DCDDA12A43DFCD601D745D11BBB5FCD1A00FEA442E8405157");
  root.WriteFile("empty", "");
  EXPECT_EQ(DE::GetFileSha256Hex(root.At("empty")),
            "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
  EXPECT_EQ(DE::GetFileSha256Hex(root.At("missing")), "");
  EXPECT_EQ(DE::GetFileSha256Hex(root.path()), "");  // a directory
}

TEST(Text, RoundTripsAndReplacesMalformedInput) {
  const std::string utf8 = "Tarn \xE2\x82\xAC \xF0\x9F\x98\x80";
  EXPECT_EQ(tarn::os::WideToUtf8(tarn::os::Utf8ToWide(utf8)), utf8);
  EXPECT_EQ(tarn::os::Utf16ToUtf8(tarn::os::Utf8ToUtf16(utf8)), utf8);
  EXPECT_EQ(tarn::os::Utf8ToUtf16(utf8).size(), 9u);  // the emoji is a surrogate pair
  EXPECT_EQ(tarn::os::Utf8ToWide("a\xFF" "b"), L"a\xFFFD" L"b");
  EXPECT_EQ(tarn::os::Utf8ToWide("\xE2\x82"), L"\xFFFD\xFFFD");
  std::unique_ptr<char[]> narrow(DE::WcharToChar(L"abc"));
  EXPECT_STREQ(narrow.get(), "abc");
  EXPECT_EQ(DE::WcharToChar(nullptr), nullptr);
}

#include <gtest/gtest.h>

#include "platform/commonutil/aaid.h"
#include "support/temp_root.h"

TEST(Aaid, WrittenFromTheMachineIdKeptAndRepaired) {
  tarn::test::TempRoot root;
  auto value = [&] { return root.ReadFile(tarn::test::kVtid + "AAID"); };
  root.WriteFile("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
  EXPECT_FALSE(AAID::HandleRegAAID());  // a write never makes the key
  root.MakeDir(tarn::test::kVtid);
  ASSERT_TRUE(AAID::HandleRegAAID());
  const std::string id = value();
  EXPECT_EQ(id.size(), 64u);
  EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  EXPECT_EQ(id, AAID::ComputeAAID());

  // Another machine id gives another id, but the one there stays unless it is no id.
  root.WriteFile("etc/machine-id", "fedcba9876543210fedcba9876543210\n");
  EXPECT_NE(AAID::ComputeAAID(), id);
  ASSERT_TRUE(AAID::HandleRegAAID());
  EXPECT_EQ(value(), id);
  root.WriteFile(tarn::test::kVtid + "AAID", "garbage");
  ASSERT_TRUE(AAID::HandleRegAAID());
  EXPECT_EQ(value(), AAID::ComputeAAID());
}

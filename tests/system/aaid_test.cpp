#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/commonutil/aaid.h"
#include "support/temp_root.h"

namespace {

constexpr const char* kVtid = "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID";

class AaidTest : public ::testing::Test {
 protected:
  std::string Value() const {
    std::ifstream in(root.At(std::string(kVtid) + "/AAID"));
    if (!in) return "<none>";
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  tarn::test::TempRoot root;
};

TEST_F(AaidTest, WrittenFromTheMachineIdAndKept) {
  root.MakeDir(kVtid);
  root.WriteFile("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
  ASSERT_TRUE(AAID::HandleRegAAID());
  const std::string id = Value();
  ASSERT_EQ(id.size(), 64u);
  EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  EXPECT_EQ(id, AAID::ComputeAAID());  // the same machine, the same id
  EXPECT_EQ(id.find("0123456789abcdef"), std::string::npos);

  // Another machine id gives another value, but one already there stays.
  root.WriteFile("etc/machine-id", "fedcba9876543210fedcba9876543210\n");
  EXPECT_NE(AAID::ComputeAAID(), id);
  ASSERT_TRUE(AAID::HandleRegAAID());
  EXPECT_EQ(Value(), id);

  // A value that is no id is replaced.
  root.WriteFile(std::string(kVtid) + "/AAID", "garbage");
  ASSERT_TRUE(AAID::HandleRegAAID());
  EXPECT_EQ(Value(), AAID::ComputeAAID());
}

TEST_F(AaidTest, NoMachineIdAndNoKey) {
  // Without the key nothing can be written: a write never makes a key.
  EXPECT_FALSE(AAID::HandleRegAAID());
  root.MakeDir(kVtid);
  ASSERT_TRUE(AAID::HandleRegAAID());
  EXPECT_EQ(Value().size(), 64u);
}

}  // namespace

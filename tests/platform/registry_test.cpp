#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "platform/os/registry.h"
#include "support/temp_root.h"

namespace fs = std::filesystem;
using namespace tarn::os;

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { root_.MakeDir(vtid_); }
  void Put(const std::string& name, const std::string& value) {
    root_.WriteFile(vtid_ + "/" + name, value);
  }
  tarn::test::TempRoot root_;
  const std::string vtid_ = "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID";
};

TEST_F(RegistryTest, ReadsValuesNarrowAndWide) {
  Put("Version", "5.3.0.300");
  std::string narrow;
  EXPECT_EQ(ReadVtidRegistryValue("Version", narrow), kRegSuccess);
  EXPECT_EQ(narrow, "5.3.0.300");
  std::wstring wide;
  EXPECT_EQ(ReadRegistryWideValue(L"Version", wide), kRegSuccess);
  EXPECT_EQ(wide, L"5.3.0.300");
}

TEST_F(RegistryTest, MissingKeyOrValueFailsAndLeavesOutput) {
  std::string out = "unchanged";
  EXPECT_EQ(ReadVtidRegistryValue("Absent", out), kRegFileNotFound);
  EXPECT_EQ(out, "unchanged");
  fs::remove_all(root_.At(vtid_));
  EXPECT_EQ(ReadVtidRegistryValue("Version", out), kRegFileNotFound);
  EXPECT_EQ(out, "unchanged");
  EXPECT_EQ(Registry().SetValue(kVtidKey, "Version", "1"), kRegFileNotFound);
  EXPECT_FALSE(fs::exists(root_.At(vtid_)));  // a write never creates a key
}

TEST_F(RegistryTest, LongValueIsCutAtTheReadLimit) {
  Put("AAID", std::string(4000, 'x'));
  std::string out;
  ASSERT_EQ(ReadVtidRegistryValue("AAID", out), kRegSuccess);
  EXPECT_EQ(out.size(), kRegValueReadLimit);
}

TEST_F(RegistryTest, KeyThroughAFileIsNotFound) {
  root_.WriteFile("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Blocked", "file");
  std::string out;
  EXPECT_EQ(Registry().GetValue("SOFTWARE\\Blocked\\Sub", "V", out, 10), kRegFileNotFound);
  EXPECT_EQ(Registry().OpenKey("SOFTWARE\\Blocked"), kRegFileNotFound);
  EXPECT_EQ(Registry().OpenKey(kVtidKey), kRegSuccess);
}

TEST_F(RegistryTest, WritesReplaceAtomically) {
  Put("AutoUpgrade", "0");
  // Readers running next to writers only ever see one whole value or the other.
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!stop) {
      std::string v;
      if (ReadVtidRegistryValue("AutoUpgrade", v) == kRegSuccess &&
          v != std::string(200, 'a') && v != std::string(200, 'b') && v != "0") {
        ++torn;
      }
    }
  });
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(Registry().SetValue(kVtidKey, "AutoUpgrade", std::string(200, i % 2 ? 'a' : 'b')),
              kRegSuccess);
  }
  stop = true;
  reader.join();
  EXPECT_EQ(torn.load(), 0);
  // No temporary files are left behind.
  int files = 0;
  for (auto& e : fs::directory_iterator(root_.At(vtid_))) files += e.is_regular_file();
  EXPECT_EQ(files, 1);
}

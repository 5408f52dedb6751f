#include "platform/os/registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "support/temp_root.h"

namespace fs = std::filesystem;
using namespace tarn::os;
using tarn::test::kVtid;

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { root_.MakeDir(kVtid); }
  void Put(const std::string& name, const std::string& value) { root_.WriteFile(kVtid + name, value); }
  tarn::test::TempRoot root_;
};

TEST_F(RegistryTest, ReadsNarrowAndWideAndCutsLongValuesAtTheReadLimit) {
  Put("Version", "5.3.0.300");
  std::string narrow;
  EXPECT_EQ(ReadVtidRegistryValue("Version", narrow), kRegSuccess);
  EXPECT_EQ(narrow, "5.3.0.300");
  std::wstring wide;
  EXPECT_EQ(ReadRegistryWideValue(L"Version", wide), kRegSuccess);
  EXPECT_EQ(wide, L"5.3.0.300");

  Put("AAID", std::string(4000, 'x'));
  ASSERT_EQ(ReadVtidRegistryValue("AAID", narrow), kRegSuccess);
  EXPECT_EQ(narrow, std::string(kRegValueReadLimit, 'x'));
}

TEST_F(RegistryTest, MissingKeyOrValueFailsLeavesTheOutputAndIsNeverCreated) {
  std::string out = "unchanged";
  EXPECT_EQ(ReadVtidRegistryValue("Absent", out), kRegFileNotFound);
  root_.WriteFile("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Blocked", "file");
  EXPECT_EQ(Registry().GetValue("SOFTWARE\\Blocked\\Sub", "V", out, 10), kRegFileNotFound);
  EXPECT_EQ(Registry().OpenKey("SOFTWARE\\Blocked"), kRegFileNotFound);  // a file is no key
  EXPECT_EQ(Registry().OpenKey(kVtidKey), kRegSuccess);
  fs::remove_all(root_.At(kVtid));
  EXPECT_EQ(ReadVtidRegistryValue("Version", out), kRegFileNotFound);
  EXPECT_EQ(out, "unchanged");
  EXPECT_EQ(Registry().SetValue(kVtidKey, "Version", "1"), kRegFileNotFound);
  EXPECT_FALSE(fs::exists(root_.At(kVtid)));
}

TEST_F(RegistryTest, WritesReplaceAtomically) {
  Put("AutoUpgrade", "0");
  // Readers running next to writers only ever see one whole value or the other.
  const std::string a(200, 'a'), b(200, 'b');
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!stop) {
      std::string v;
      if (ReadVtidRegistryValue("AutoUpgrade", v) == kRegSuccess && v != a && v != b && v != "0") ++torn;
    }
  });
  for (int i = 0; i < 200; ++i) ASSERT_EQ(Registry().SetValue(kVtidKey, "AutoUpgrade", i % 2 ? a : b), kRegSuccess);
  stop = true;
  reader.join();
  EXPECT_EQ(torn.load(), 0);
  int files = 0;  // no temporary files are left behind
  for (auto& e : fs::directory_iterator(root_.At(kVtid))) files += e.is_regular_file();
  EXPECT_EQ(files, 1);
}

#include "platform/os/named_mutex.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/os/last_error.h"
#include "support/temp_root.h"

using namespace tarn::os;

namespace {

// A flock belongs to an open file description, so a second description in this
// process meets the holder as another process would (TarnCoreNotice against a
// holder in another process is run by the notice tools' test).
TEST(NamedMutexTest, OpenSucceedsOnlyWhileSomeoneHoldsTheLockFile) {
  const char* name = "Global\\VTFrameworkNoticeMutex";
  tarn::test::TempRoot root;
  SetLastError(0);
  EXPECT_EQ(NamedMutex::Open(name), nullptr);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);

  auto held = NamedMutex::Create(name);
  ASSERT_TRUE(held && held->owned());
  EXPECT_NE(NamedMutex::Open(name), nullptr);
  auto mine = NamedMutex::Create(name);
  ASSERT_TRUE(mine);
  EXPECT_FALSE(mine->owned());
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);
  mine.reset();
  held.reset();  // as when the holder's process ends

  EXPECT_EQ(NamedMutex::Open(name), nullptr);  // the file alone is not the mutex
  EXPECT_TRUE(std::filesystem::exists(root.At("run/tarncore/locks/Global-VTFrameworkNoticeMutex")));
  held = NamedMutex::Create(name);  // Open's own test lock was let go
  ASSERT_TRUE(held);
  EXPECT_TRUE(held->owned());
  EXPECT_NE(NamedMutex::Open(name), nullptr);
  held->Release();
  EXPECT_EQ(NamedMutex::Open(name), nullptr);
}

}  // namespace

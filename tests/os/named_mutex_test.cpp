#include "platform/os/named_mutex.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "platform/os/last_error.h"
#include "support/temp_root.h"

using namespace tarn::os;

namespace {

const char* kName = "Global\\VTFrameworkNoticeMutex";

TEST(NamedMutexTest, OpenSucceedsOnlyWhileSomeoneHoldsTheLockFile) {
  tarn::test::TempRoot root;
  SetLastError(0);
  EXPECT_EQ(NamedMutex::Open(kName), nullptr);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);

  auto held = NamedMutex::Create(kName);
  ASSERT_TRUE(held);
  EXPECT_TRUE(held->owned());
  EXPECT_NE(NamedMutex::Open(kName), nullptr);
  auto second = NamedMutex::Create(kName);
  ASSERT_TRUE(second);
  EXPECT_FALSE(second->owned());
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);

  held->Release();
  EXPECT_EQ(NamedMutex::Open(kName), nullptr);  // the file alone is not the mutex
  EXPECT_TRUE(std::filesystem::exists(root.At("run/tarncore/locks/Global-VTFrameworkNoticeMutex")));
}

TEST(NamedMutexTest, HeldByAnotherProcessUntilItEnds) {
  tarn::test::TempRoot root;
  int ready[2], finish[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(finish), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    auto mutex = NamedMutex::Create(kName);
    char c = mutex && mutex->owned() ? 'y' : 'n';
    [[maybe_unused]] auto w = ::write(ready[1], &c, 1);
    ::close(finish[1]);
    [[maybe_unused]] auto r = ::read(finish[0], &c, 1);  // until the parent closes its end
    ::_exit(0);
  }
  ::close(finish[0]);
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');
  EXPECT_NE(NamedMutex::Open(kName), nullptr);
  auto mine = NamedMutex::Create(kName);
  ASSERT_TRUE(mine);
  EXPECT_FALSE(mine->owned());
  mine.reset();

  ::close(finish[1]);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_EQ(NamedMutex::Open(kName), nullptr);
  ::close(ready[0]);
  ::close(ready[1]);
}

}  // namespace

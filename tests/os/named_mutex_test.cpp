#include "platform/os/named_mutex.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "platform/os/last_error.h"
#include "support/temp_root.h"

using namespace tarn::os;

namespace {

// Another process holds the mutex until the test closes the pipe it waits on.
TEST(NamedMutexTest, OpenSucceedsOnlyWhileSomeoneHoldsTheLockFile) {
  const char* name = "Global\\VTFrameworkNoticeMutex";
  tarn::test::TempRoot root;
  SetLastError(0);
  EXPECT_EQ(NamedMutex::Open(name), nullptr);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);

  int ready[2], finish[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(finish), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    auto mutex = NamedMutex::Create(name);
    char c = mutex && mutex->owned() ? 'y' : 'n';
    [[maybe_unused]] auto w = ::write(ready[1], &c, 1);
    ::close(finish[1]);
    [[maybe_unused]] auto r = ::read(finish[0], &c, 1);
    ::_exit(0);
  }
  ::close(finish[0]);
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');
  EXPECT_NE(NamedMutex::Open(name), nullptr);
  auto mine = NamedMutex::Create(name);
  ASSERT_TRUE(mine);
  EXPECT_FALSE(mine->owned());
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);
  mine.reset();

  ::close(finish[1]);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_EQ(NamedMutex::Open(name), nullptr);  // the file alone is not the mutex
  EXPECT_TRUE(std::filesystem::exists(root.At("run/tarncore/locks/Global-VTFrameworkNoticeMutex")));
  auto held = NamedMutex::Create(name);
  ASSERT_TRUE(held);
  EXPECT_TRUE(held->owned());
  EXPECT_NE(NamedMutex::Open(name), nullptr);
  held->Release();
  EXPECT_EQ(NamedMutex::Open(name), nullptr);
  ::close(ready[0]);
  ::close(ready[1]);
}

}  // namespace

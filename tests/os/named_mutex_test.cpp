#include "platform/os/named_mutex.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "platform/os/last_error.h"
#include "support/temp_root.h"

using namespace tarn::os;

namespace {

TEST(NamedMutexTest, BackslashesBecomeDashesUnderTheRuntimeLocks) {
  tarn::test::TempRoot root;
  EXPECT_EQ(NamedMutex::PathFor("Global\\VTFrameworkNoticeMutex"),
            root.At("run/tarncore/locks/Global-VTFrameworkNoticeMutex"));
}

TEST(NamedMutexTest, OpenSucceedsOnlyWhileSomeoneHoldsIt) {
  tarn::test::TempRoot root;
  SetLastError(0);
  EXPECT_EQ(NamedMutex::Open("TarnCore_Install"), nullptr);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);

  auto held = NamedMutex::Create("TarnCore_Install");
  ASSERT_TRUE(held);
  EXPECT_TRUE(held->owned());
  EXPECT_NE(NamedMutex::Open("TarnCore_Install"), nullptr);

  auto second = NamedMutex::Create("TarnCore_Install");
  ASSERT_TRUE(second);
  EXPECT_FALSE(second->owned());
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);

  held->Release();
  EXPECT_EQ(NamedMutex::Open("TarnCore_Install"), nullptr);  // the file alone is not the mutex
  EXPECT_TRUE(std::filesystem::exists(NamedMutex::PathFor("TarnCore_Install")));
}

TEST(NamedMutexTest, HeldByAnotherProcessUntilItEnds) {
  tarn::test::TempRoot root;
  int ready[2];
  int finish[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(finish), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ready[0]);
    ::close(finish[1]);
    auto mutex = NamedMutex::Create("Global\\VTFrameworkNoticeMutex");
    char c = mutex && mutex->owned() ? 'y' : 'n';
    [[maybe_unused]] auto w = ::write(ready[1], &c, 1);
    [[maybe_unused]] auto r = ::read(finish[0], &c, 1);  // until the parent closes its end
    ::_exit(0);
  }
  ::close(ready[1]);
  ::close(finish[0]);
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');

  EXPECT_NE(NamedMutex::Open("Global\\VTFrameworkNoticeMutex"), nullptr);
  auto mine = NamedMutex::Create("Global\\VTFrameworkNoticeMutex");
  ASSERT_TRUE(mine);
  EXPECT_FALSE(mine->owned());
  mine.reset();

  ::close(finish[1]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(NamedMutex::Open("Global\\VTFrameworkNoticeMutex"), nullptr);
  ::close(ready[0]);
}

}  // namespace

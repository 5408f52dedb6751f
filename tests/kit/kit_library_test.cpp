// The loader's library operations with real kit libraries: exports of the
// library alone, and the tie between a tested file and the library that got
// mapped.
#include <dlfcn.h>

#include <string>

#include "kit/KitLibrary.h"
#include "kit_fixture.h"
#include "tarnkit/tarn_kit.h"

namespace {

class KitLibrary : public tarn::test::KitFixture {
 protected:
  void SetUp() override {
    KitFixture::SetUp();
    InstallKit("com.test.main");
    // A second, equally signed copy of the same library in another folder.
    root.MakeDir(kInstall + "/other");
    std::filesystem::copy_file(KitDir("com.test.main") + "libtest_main_kit.so", OtherCopy());
  }
  std::string Library() const { return KitDir("com.test.main") + "libtest_main_kit.so"; }
  std::string OtherCopy() const { return install + "other/libtest_main_kit.so"; }
};

TEST_F(KitLibrary, ExportsAreTheLibrarysOwn) {
  std::string error;
  void* module = tarn::kit::OpenLibrary(Library(), error);
  ASSERT_NE(nullptr, module) << error;
  EXPECT_NE(nullptr, tarn::kit::FindExport(module, "Echo"));
  EXPECT_EQ(nullptr, tarn::kit::FindExport(module, "echo"));  // exact case
  EXPECT_EQ(nullptr, tarn::kit::FindExport(module, "Missing"));
  // dlsym would find these in the library's dependencies.
  ASSERT_NE(nullptr, ::dlsym(module, "malloc"));
  EXPECT_EQ(nullptr, tarn::kit::FindExport(module, "malloc"));
  tarn::kit::CloseLibrary(module);

  EXPECT_EQ(nullptr, tarn::kit::OpenLibrary(install + "kits/nothing.so", error));
  EXPECT_NE(std::string::npos, error.find("nothing.so")) << error;
}

TEST_F(KitLibrary, LoadedLibraryMustBeTheFileThatWasTested) {
  tarn::kit::KitFile tested;
  ASSERT_TRUE(tested.OpenVerified(Library()));
  std::string error;
  void* same = tarn::kit::OpenLibrary(Library(), error);
  void* other = tarn::kit::OpenLibrary(OtherCopy(), error);
  ASSERT_NE(nullptr, same);
  ASSERT_NE(nullptr, other);
  ASSERT_NE(same, other);
  EXPECT_TRUE(tested.IsMappedAs(same));
  EXPECT_FALSE(tested.IsMappedAs(other));
  tarn::kit::CloseLibrary(same);
  tarn::kit::CloseLibrary(other);

  // A file whose signature no longer holds doesn't open.
  AppendTo(OtherCopy(), "x");
  tarn::kit::KitFile changed;
  EXPECT_FALSE(changed.OpenVerified(OtherCopy()));
  EXPECT_FALSE(changed.IsOpen());
}

}  // namespace

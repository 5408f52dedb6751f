// Processes judged by their executables: signatures, paths and fingerprints by pid.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include <gtest/gtest.h>

#include "platform/os/process_identity.h"
#include "platform/os/text.h"
#include "platform/security/security.h"
#include "platform/security/signature.h"
#include "security_test_util.h"
#include "support/temp_root.h"

namespace ts = tarn::security;
using tarn::test::Child;

namespace {

class ProcessSignatureTest : public ::testing::Test {
 protected:
  tarn::test::TempRoot root;
  ts::SigningKey maker = tarn::test::NewKey();
  ts::SigningKey platform = tarn::test::NewKey();
  std::vector<Child> children;
  SignatureVerifyer* v = SignatureVerifyer::GetInstance();

  void SetUp() override {
    tarn::test::TrustKey(maker, ts::KeyKind::kMaker, "maker");
    tarn::test::TrustKey(platform, ts::KeyKind::kPlatform, "platform");
  }
  void TearDown() override {
    for (auto& c : children) tarn::test::Finish(c);
  }

  // A copy of the helper, signed by key (or left unsigned), started in "wait" mode.
  pid_t StartHelper(const std::string& name, const ts::SigningKey* key) {
    std::string path = root.At(name);
    tarn::test::CopyExecutable(TARN_SECURITY_HELPER, path);
    EXPECT_TRUE(!key || ts::SignFile(path, *key)) << path;
    children.push_back(tarn::test::Spawn(path, {"wait"}));
    return children.back().pid;
  }
  std::string Exe(const std::string& name) { return std::filesystem::canonical(root.At(name)).string(); }
};

TEST_F(ProcessSignatureTest, SignedChildVerifiesByPidWithItsSignersFingerprint) {
  pid_t pid = StartHelper("maker-helper", &maker);
  EXPECT_EQ(v->Verify(pid), 0);
  EXPECT_EQ(v->VerifyVantrelExe(pid), 0);
  std::string exe;
  EXPECT_EQ(v->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(exe, Exe("maker-helper"));
  std::wstring wexe;
  EXPECT_NE(v->ProcessGetPeFilePath(pid, wexe), 0);
  EXPECT_EQ(tarn::os::WideToUtf8(wexe), exe);
  EXPECT_EQ(CalcFileThumb(wexe), ts::Fingerprint(maker.Public()));
  EXPECT_EQ(ts::ProcessFingerprint(pid), ts::Fingerprint(maker.Public()));

  pid_t platformPid = StartHelper("platform-helper", &platform);
  EXPECT_EQ(v->Verify(platformPid), 0);
  EXPECT_NE(v->VerifyVantrelExe(platformPid), 0);  // not the maker's
}

TEST_F(ProcessSignatureTest, UnsignedChildHasAPathButNoFingerprint) {
  pid_t pid = StartHelper("plain-helper", nullptr);
  EXPECT_NE(v->Verify(pid), 0);
  EXPECT_NE(v->VerifyVantrelExe(pid), 0);
  std::string exe;
  EXPECT_NE(v->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(exe, Exe("plain-helper"));  // still given, for the caller's log
  std::wstring wexe;
  ASSERT_NE(v->ProcessGetPeFilePath(pid, wexe), 0);
  EXPECT_EQ(CalcFileThumb(wexe), "");
  EXPECT_EQ(ts::ProcessFingerprint(pid), "");
}

TEST_F(ProcessSignatureTest, ReplacedExecutableStillJudgedByWhatRuns) {
  pid_t pid = StartHelper("replaced-helper", &maker);
  // An unsigned program now sits at the path; the running image is the signed one.
  tarn::test::CopyExecutable(TARN_SECURITY_HELPER, root.At("other"));
  ASSERT_EQ(std::rename(root.At("other").c_str(), root.At("replaced-helper").c_str()), 0);
  EXPECT_EQ(v->Verify(pid), 0);
  EXPECT_EQ(ts::ProcessFingerprint(pid), ts::Fingerprint(maker.Public()));
  // The path no longer names what runs, so it is not handed out.
  std::wstring wexe;
  EXPECT_EQ(v->ProcessGetPeFilePath(pid, wexe), 0);
  std::string exe;
  EXPECT_NE(v->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(exe, "");
}

TEST_F(ProcessSignatureTest, GoneProcessesAreUnverifiable) {
  pid_t pid = StartHelper("short-lived", &maker);
  pid_t pinned = StartHelper("pinned", &maker);
  ASSERT_TRUE(tarn::os::PinProcess(pinned));
  ASSERT_EQ(v->Verify(pid), 0);
  ASSERT_EQ(v->Verify(pinned), 0);

  // Exited but not reaped: a zombie has no executable any more.
  ::close(children[0].input);
  children[0].input = -1;
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(v->Verify(pid), static_cast<int>(ts::Status::kProcessGone));
  EXPECT_NE(v->VerifyVantrelExe(pid), 0);

  tarn::test::Finish(children[0]);  // reaped
  tarn::test::Finish(children[1]);
  EXPECT_EQ(v->Verify(pinned), static_cast<int>(ts::Status::kProcessGone));
  tarn::os::UnpinProcess(pinned);
  std::string exe;
  std::wstring wexe;
  EXPECT_NE(v->Verify(pid), 0);
  EXPECT_NE(v->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(v->ProcessGetPeFilePath(pid, wexe), 0);
  EXPECT_EQ(ts::ProcessFingerprint(pid), "");
  for (uint32_t bad : {0u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    SCOPED_TRACE(bad);
    EXPECT_NE(v->Verify(bad), 0);
    EXPECT_NE(v->VerifyVantrelExe(bad), 0);
    EXPECT_EQ(v->ProcessGetPeFilePath(bad, wexe), 0);
  }
}

}  // namespace

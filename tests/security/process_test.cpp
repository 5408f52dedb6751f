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
using tarn::test::TempRoot;

namespace {

class ProcessSignatureTest : public ::testing::Test {
 protected:
  TempRoot root;
  ts::SigningKey maker = tarn::test::NewKey();
  ts::SigningKey platform = tarn::test::NewKey();
  std::vector<Child> children;

  static SignatureVerifyer* v() { return SignatureVerifyer::GetInstance(); }

  void SetUp() override {
    tarn::test::TrustKey(maker, ts::KeyKind::kMaker, "maker");
    tarn::test::TrustKey(platform, ts::KeyKind::kPlatform, "platform");
  }
  void TearDown() override {
    for (auto& c : children) tarn::test::Finish(c);
  }

  // A copy of the helper, signed by key (or left unsigned), started in "wait" mode.
  std::pair<std::string, pid_t> StartHelper(const std::string& name, const ts::SigningKey* key) {
    std::string path = root.At(name);
    tarn::test::CopyExecutable(TARN_SECURITY_HELPER, path);
    if (key) {
      EXPECT_TRUE(ts::SignFile(path, *key));
    }
    children.push_back(tarn::test::Spawn(path, {"wait"}));
    return {path, children.back().pid};
  }
};

TEST_F(ProcessSignatureTest, SignedChildVerifiesByPid) {
  auto [path, pid] = StartHelper("maker-helper", &maker);
  EXPECT_EQ(v()->Verify(pid), 0);
  EXPECT_EQ(v()->VerifyVantrelExe(pid), 0);

  std::string exe;
  EXPECT_EQ(v()->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(exe, std::filesystem::canonical(path).string());

  std::wstring wexe;
  EXPECT_NE(v()->ProcessGetPeFilePath(pid, wexe), 0);
  EXPECT_EQ(tarn::os::WideToUtf8(wexe), exe);
  EXPECT_EQ(CalcFileThumb(wexe), ts::Fingerprint(maker.Public()));
  EXPECT_EQ(ts::ProcessFingerprint(pid), ts::Fingerprint(maker.Public()));
}

TEST_F(ProcessSignatureTest, PlatformSignedChildIsNotTheMakers) {
  auto [path, pid] = StartHelper("platform-helper", &platform);
  EXPECT_EQ(SignatureVerifyer::GetInstance()->Verify(pid), 0);
  EXPECT_NE(SignatureVerifyer::GetInstance()->VerifyVantrelExe(pid), 0);
}

TEST_F(ProcessSignatureTest, UnsignedChildHasAPathButNoFingerprint) {
  auto [path, pid] = StartHelper("plain-helper", nullptr);
  EXPECT_NE(v()->Verify(pid), 0);
  EXPECT_NE(v()->VerifyVantrelExe(pid), 0);
  std::string exe;
  EXPECT_NE(v()->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(exe, std::filesystem::canonical(path).string());  // still given, for the caller's log
  std::wstring wexe;
  ASSERT_NE(v()->ProcessGetPeFilePath(pid, wexe), 0);
  EXPECT_EQ(CalcFileThumb(wexe), "");
  EXPECT_EQ(ts::ProcessFingerprint(pid), "");
}

TEST_F(ProcessSignatureTest, ReplacedExecutableStillJudgedByWhatRuns) {
  auto [path, pid] = StartHelper("replaced-helper", &maker);
  // An unsigned program now sits at the path; the running image is the signed one.
  std::string other = root.At("other");
  tarn::test::CopyExecutable(TARN_SECURITY_HELPER, other);
  ASSERT_EQ(std::rename(other.c_str(), path.c_str()), 0);

  EXPECT_EQ(v()->Verify(pid), 0);
  EXPECT_EQ(ts::ProcessFingerprint(pid), ts::Fingerprint(maker.Public()));
  // The path no longer names what runs, so it is not handed out.
  std::wstring wexe;
  EXPECT_EQ(v()->ProcessGetPeFilePath(pid, wexe), 0);
  std::string exe;
  EXPECT_NE(v()->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(exe, "");
}

TEST_F(ProcessSignatureTest, GoneProcessesAreUnverifiable) {
  auto [path, pid] = StartHelper("short-lived", &maker);
  ASSERT_EQ(v()->Verify(pid), 0);

  // Exited but not reaped: a zombie has no executable any more.
  ::close(children.back().input);
  children.back().input = -1;
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(v()->Verify(pid), static_cast<int>(ts::Status::kProcessGone));
  EXPECT_NE(v()->VerifyVantrelExe(pid), 0);

  tarn::test::Finish(children.back());  // reaped
  std::string exe;
  std::wstring wexe;
  EXPECT_NE(v()->Verify(pid), 0);
  EXPECT_NE(v()->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(v()->ProcessGetPeFilePath(pid, wexe), 0);
  EXPECT_EQ(ts::ProcessFingerprint(pid), "");

  for (uint32_t bad : {0u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    EXPECT_NE(v()->Verify(bad), 0) << bad;
    EXPECT_NE(v()->VerifyVantrelExe(bad), 0) << bad;
    EXPECT_EQ(v()->ProcessGetPeFilePath(bad, wexe), 0) << bad;
  }
}

TEST_F(ProcessSignatureTest, PinnedProcessThatEndedIsNotConfirmed) {
  auto [path, pid] = StartHelper("pinned", &maker);
  ASSERT_TRUE(tarn::os::PinProcess(pid));
  EXPECT_EQ(v()->Verify(pid), 0);
  tarn::test::Finish(children.back());
  EXPECT_EQ(v()->Verify(pid), static_cast<int>(ts::Status::kProcessGone));
  tarn::os::UnpinProcess(pid);
}

TEST_F(ProcessSignatureTest, ProgramSignedByTheBuildVerifiesWithTheDevKeyTrusted) {
  auto devKey = ts::ReadPublicKeyFile(TARN_DEV_PUBLIC_KEY);
  ASSERT_TRUE(devKey);
  EXPECT_FALSE(VerifyEmbeddedSignature(TARN_SECURITY_SIGNED_HELPER));
  ASSERT_TRUE(ts::InstallTrustedKey(*devKey, ts::KeyKind::kMaker, "tarn-dev"));
  EXPECT_TRUE(VerifyEmbeddedSignature(TARN_SECURITY_SIGNED_HELPER));
  EXPECT_TRUE(VerifyVantrelDigitalSignature(tarn::os::Utf8ToWide(TARN_SECURITY_SIGNED_HELPER)));
  EXPECT_FALSE(VerifyEmbeddedSignature(TARN_SECURITY_HELPER));

  children.push_back(tarn::test::Spawn(TARN_SECURITY_SIGNED_HELPER, {"wait"}));
  pid_t pid = children.back().pid;
  EXPECT_EQ(v()->Verify(pid), 0);
  std::wstring wexe;
  ASSERT_NE(v()->ProcessGetPeFilePath(pid, wexe), 0);
  EXPECT_EQ(CalcFileThumb(wexe), ts::Fingerprint(*devKey));
}

struct FakeVerifyer : SignatureVerifyer {
  int Verify(uint32_t) override { return 0; }
};

TEST(SignatureVerifyerReplacement, TestsCanInstallTheirOwn) {
  SignatureVerifyer* real = SignatureVerifyer::GetInstance();
  FakeVerifyer fake;
  SignatureVerifyer::SetInstanceForTesting(&fake);
  EXPECT_EQ(SignatureVerifyer::GetInstance(), &fake);
  EXPECT_EQ(SignatureVerifyer::GetInstance()->Verify(0), 0);
  SignatureVerifyer::SetInstanceForTesting(nullptr);
  EXPECT_EQ(SignatureVerifyer::GetInstance(), real);
  EXPECT_NE(SignatureVerifyer::GetInstance()->Verify(0), 0);
}

}  // namespace

// Processes judged by their executables: signatures, paths and fingerprints by pid.
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>

#include "platform/os/process_identity.h"
#include "platform/os/text.h"
#include "platform/security/security.h"
#include "security_test_util.h"

namespace ts = tarn::security;

namespace {

class ProcessSignatureTest : public tarn::test::TrustedKeysTest {
 protected:
  void TearDown() override {
    for (auto& pid : children) tarn::test::Stop(pid);
  }
  // A copy of the helper, signed by key (or left unsigned), started in "wait" mode.
  pid_t StartHelper(const std::string& name, const ts::SigningKey* key) {
    std::string path = root.At(name);
    tarn::test::CopyExecutable(TARN_SECURITY_HELPER, path);
    EXPECT_TRUE(!key || ts::SignFile(path, *key)) << path;
    children.push_back(tarn::test::Spawn(path, {"wait"}));
    return children.back();
  }
  std::string Exe(const std::string& name) { return std::filesystem::canonical(root.At(name)).string(); }

  std::vector<pid_t> children;
  SignatureVerifyer* v = SignatureVerifyer::GetInstance();
};

TEST_F(ProcessSignatureTest, LiveChildrenAreJudgedByTheirExecutableAndItsSigner) {
  struct Case { const char* name; const ts::SigningKey* key; bool trusted, maker; };
  for (const Case& c : {Case{"maker-helper", &maker, true, true}, Case{"platform-helper", &platform, true, false},
                        Case{"plain-helper", nullptr, false, false}}) {
    SCOPED_TRACE(c.name);
    const pid_t pid = StartHelper(c.name, c.key);
    const std::string fingerprint = c.key ? ts::Fingerprint(c.key->Public()) : "";
    EXPECT_EQ(v->Verify(pid) == 0, c.trusted);
    EXPECT_EQ(v->VerifyVantrelExe(pid) == 0, c.maker);
    std::string exe;
    EXPECT_EQ(v->GetAndVerifyTarnCoreExePath(pid, exe) == 0, c.trusted);
    EXPECT_EQ(exe, Exe(c.name));  // given even when refused, for the caller's log
    std::wstring wexe;
    ASSERT_NE(v->ProcessGetPeFilePath(pid, wexe), 0);
    EXPECT_EQ(tarn::os::WideToUtf8(wexe), exe);
    EXPECT_EQ(CalcFileThumb(wexe), fingerprint);
    EXPECT_EQ(ts::ProcessFingerprint(pid), fingerprint);
  }
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
  const pid_t pid = StartHelper("short-lived", &maker);
  const pid_t pinned = StartHelper("pinned", &maker);
  ASSERT_TRUE(tarn::os::PinProcess(pinned));
  ASSERT_EQ(v->Verify(pid), 0);
  ASSERT_EQ(v->Verify(pinned), 0);

  // Exited but not reaped: a zombie has no executable any more.
  ::kill(pid, SIGKILL);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(v->Verify(pid), static_cast<int>(ts::Status::kProcessGone));
  EXPECT_NE(v->VerifyVantrelExe(pid), 0);

  for (auto& child : children) tarn::test::Stop(child);  // reaped
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

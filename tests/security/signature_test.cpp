// Signed files and processes: trailer format, trust store, tampering, and
// running programs judged by pid. Signed libraries load in the kit and zbrf suites.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <future>

#include "ipc/ipc_test_util.h"
#include "platform/ipc/ipc_server.h"
#include "platform/ipc/signature_manager.h"
#include "platform/os/text.h"
#include "platform/security/security.h"
#include "platform/security/signature.h"
#include "security_test_util.h"

namespace ts = tarn::security;
using tarn::test::ReadText;
using tarn::test::TempRoot;
using tarn::test::WriteBytes;

namespace {

std::wstring W(const std::string& s) { return tarn::os::Utf8ToWide(s); }

std::string Sha256(const std::string& bytes) {
  unsigned char digest[32];
  unsigned int len = 0;
  EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest, &len, EVP_sha256(), nullptr), 1);
  return std::string(reinterpret_cast<char*>(digest), len);
}

class SignatureTest : public tarn::test::TrustedKeysTest {
 protected:
  ts::SigningKey stranger = tarn::test::NewKey();

  std::string SignedFile(const std::string& name, const std::string& payload, const ts::SigningKey& key) {
    std::string path = root.At(name);
    WriteBytes(path, payload);
    std::string error;
    EXPECT_TRUE(ts::SignFile(path, key, &error)) << error;
    return path;
  }
};

TEST_F(SignatureTest, TrailerHasTheAgreedLayout) {
  const std::string payload = "some payload bytes";
  std::string bytes = ReadText(SignedFile("f.bin", payload, maker));
  ASSERT_EQ(bytes.size(), payload.size() + 112);
  EXPECT_EQ(bytes.substr(0, payload.size()), payload);
  ts::PublicKey pub = maker.Public();
  EXPECT_EQ(bytes.substr(payload.size(), 32), std::string(pub.begin(), pub.end()));
  EXPECT_EQ(bytes.substr(bytes.size() - 16), "~TarnCoreSigned~");

  // The signature is Ed25519 over SHA-256(payload), checked here with OpenSSL directly.
  std::string digest = Sha256(payload);
  EVP_PKEY* key = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, pub.data(), pub.size());
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  ASSERT_EQ(EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key), 1);
  EXPECT_EQ(EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(bytes.data()) + payload.size() + 32, 64,
                             reinterpret_cast<const unsigned char*>(digest.data()), digest.size()),
            1);
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  EXPECT_EQ(ts::Fingerprint(pub).size(), 64u);
  EXPECT_EQ(ts::Fingerprint(pub).find_first_not_of("0123456789ABCDEF"), std::string::npos);
}

TEST_F(SignatureTest, MakerAndPlatformKeysAreTrustedForDifferentChecks) {
  struct Case { const char* name; const ts::SigningKey& key; bool trusted, maker; };
  for (const Case& c : {Case{"maker", maker, true, true}, Case{"platform", platform, true, false},
                        Case{"stranger", stranger, false, false}}) {
    SCOPED_TRACE(c.name);
    const std::string path = SignedFile(c.name, "payload", c.key);
    EXPECT_EQ(VerifyEmbeddedSignature(path.c_str()), c.trusted);
    EXPECT_EQ(VerifyVantrelDigitalSignature(W(path)), c.maker);
    EXPECT_EQ(ts::VerifyFile(path, ts::Trust::kPlatformOrMaker).status, c.trusted ? ts::Status::kValid : ts::Status::kUntrusted);
    // A fingerprint names a signer whether or not the machine trusts it.
    EXPECT_EQ(CalcFileThumb(W(path)), ts::Fingerprint(c.key.Public()));
  }
  TempRoot other;  // a machine that trusts nothing
  EXPECT_FALSE(VerifyEmbeddedSignature(root.At("maker").c_str()));
}

TEST_F(SignatureTest, PayloadsOfAnySizeVerifyAndAnyChangedByteBreaksThem) {
  // Sizes around the reader's 64 KiB chunks, so the trailer straddles a chunk edge.
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{16}, std::size_t{65536 - 112},
                           std::size_t{65536 - 50}, std::size_t{65536}, std::size_t{131072 + 3}}) {
    SCOPED_TRACE(size);
    std::string payload(size, '\0');
    for (std::size_t i = 0; i < size; ++i) payload[i] = static_cast<char>(i * 7 + 3);
    std::string path = SignedFile("f.bin", payload, maker);
    ts::Inspection r = ts::VerifyFile(path, ts::Trust::kMakerOnly);
    EXPECT_EQ(r.status, ts::Status::kValid);
    EXPECT_EQ(r.payloadSize, size);
    const std::string good = ReadText(path);
    // First, middle and last payload byte, a key byte, a signature byte.
    for (std::size_t pos : {std::size_t{0}, size / 2, size - 1, size + 5, size + 32 + 10}) {
      if (pos >= good.size()) continue;  // size - 1 of an empty payload
      SCOPED_TRACE(pos);
      std::string bad = good;
      bad[pos] ^= 0x01;
      WriteBytes(path, bad);
      EXPECT_FALSE(VerifyEmbeddedSignature(path.c_str()));
      EXPECT_EQ(CalcFileThumb(W(path)), "");
      if (pos < size) {
        EXPECT_EQ(ts::InspectFile(path).status, ts::Status::kBadSignature);
      }
    }
  }
}

TEST_F(SignatureTest, TruncatedAndDoubledTrailersFailAndSigningRepairsOnlyWholeOnes) {
  const std::string payload(500, 'p');
  std::string path = SignedFile("f.bin", payload, maker);
  const std::string good = ReadText(path);
  const std::string trailer = good.substr(payload.size());
  // A second trailer whose signature is right for everything before it (what a
  // signer that appends without stripping would make) is refused all the same.
  std::string digest = Sha256(good);
  auto sig = maker.Sign(reinterpret_cast<const std::uint8_t*>(digest.data()), digest.size());
  ASSERT_TRUE(sig);
  std::string resigned = good + trailer.substr(0, 32) + std::string(sig->begin(), sig->end()) + "~TarnCoreSigned~";
  for (const std::string& bytes : {good.substr(0, good.size() - 1),                              // magic cut short
                                   good.substr(0, good.size() - 36) + "~TarnCoreSigned~",        // signature cut
                                   good.substr(good.size() - 60),  // shorter than a trailer
                                   good + trailer, resigned}) {
    SCOPED_TRACE(bytes.size());
    WriteBytes(path, bytes);
    EXPECT_FALSE(VerifyEmbeddedSignature(path.c_str()));
    EXPECT_EQ(CalcFileThumb(W(path)), "");
  }
  EXPECT_EQ(ts::InspectFile(path).status, ts::Status::kTruncated);
  // Signing such a file again replaces both trailers with one.
  ASSERT_TRUE(ts::SignFile(path, platform));
  EXPECT_EQ(ReadText(path).size(), payload.size() + 112);
  EXPECT_EQ(ts::ReadSignerKey(path), platform.Public());

  // Too short to hold a trailer: refused, and the file is left alone.
  WriteBytes(path, "abc~TarnCoreSigned~");
  EXPECT_EQ(ts::InspectFile(path).status, ts::Status::kTruncated);
  std::string error;
  EXPECT_FALSE(ts::SignFile(path, maker, &error));
  EXPECT_NE(error.find("truncated"), std::string::npos) << error;
  EXPECT_EQ(ReadText(path), "abc~TarnCoreSigned~");
}

TEST_F(SignatureTest, BadInputsFailPlainly) {
  root.MakeDir("a-directory");
  WriteBytes(root.At("empty"), "");
  WriteBytes(root.At("short"), "~TarnCoreSigned");
  ASSERT_EQ(::mkfifo(root.At("fifo").c_str(), 0600), 0);
  for (const char* name : {"a-directory", "empty", "short", "fifo", "missing"}) {
    SCOPED_TRACE(name);
    std::string path = root.At(name);
    EXPECT_FALSE(VerifyEmbeddedSignature(path.c_str()));
    EXPECT_FALSE(VerifyVantrelDigitalSignature(W(path)));
    EXPECT_EQ(CalcFileThumb(W(path)), "");
    EXPECT_FALSE(ts::ReadSignerKey(path));
  }
  EXPECT_EQ(ts::InspectFile(root.At("a-directory")).status, ts::Status::kNotRegularFile);
  EXPECT_EQ(ts::InspectFile(root.At("missing")).status, ts::Status::kUnreadable);
  EXPECT_FALSE(VerifyEmbeddedSignature(nullptr));
  EXPECT_FALSE(VerifyEmbeddedSignature(""));
  EXPECT_EQ(ts::InspectFd(-1).status, ts::Status::kUnreadable);
  EXPECT_FALSE(ts::SignFile(root.At("a-directory"), maker));
  EXPECT_FALSE(ts::SignFile(root.At("missing"), maker));
}

TEST_F(SignatureTest, VerifyingAnOpenFileReadsOnlyThroughItAndLeavesItsOffset) {
  std::string path = SignedFile("f.bin", std::string(200000, 'q'), maker);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::lseek(fd, 17, SEEK_SET), 17);
  // The path now names another file; the descriptor still holds the signed one.
  ASSERT_EQ(::unlink(path.c_str()), 0);
  WriteBytes(path, "an impostor");
  EXPECT_EQ(ts::VerifyFd(fd, ts::Trust::kMakerOnly).status, ts::Status::kValid);
  EXPECT_EQ(ts::InspectFd(fd).payloadSize, 200000u);
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 17);
  EXPECT_FALSE(VerifyEmbeddedSignature(path.c_str()));
  ::close(fd);
}

TEST_F(SignatureTest, TrustStoreReadsOnlyWellFormedPubFiles) {
  TempRoot fresh;
  ts::PublicKey a = maker.Public(), b = platform.Public(), c = stranger.Public(), d = tarn::test::NewKey().Public();
  std::string upper = ts::KeyToHex(c);
  for (auto& ch : upper) ch = static_cast<char>(std::toupper(ch));
  const std::string dir = "etc/tarncore/trusted-keys/";
  fresh.WriteFile(dir + "a.pub", ts::KeyToHex(a) + "\n");
  fresh.WriteFile(dir + "b.pub", "  " + ts::KeyToHex(b) + " \r\n\n");
  fresh.WriteFile(dir + "maker/c.pub", upper);
  fresh.WriteFile(dir + "d.key", ts::KeyToHex(d) + "\n");                  // not .pub
  fresh.WriteFile(dir + "short.pub", ts::KeyToHex(d).substr(1) + "\n");    // 63 digits
  fresh.WriteFile(dir + "long.pub", ts::KeyToHex(d) + "00\n");             // 66 digits
  fresh.WriteFile(dir + "two.pub", ts::KeyToHex(d) + "\n" + ts::KeyToHex(a) + "\n");
  fresh.WriteFile(dir + "nothex.pub", std::string(64, 'g'));

  ts::TrustStore store = ts::TrustStore::Load();
  EXPECT_EQ(store.platform, (std::vector<ts::PublicKey>{a, b}));
  EXPECT_EQ(store.maker, (std::vector<ts::PublicKey>{c}));
  EXPECT_TRUE(store.Trusts(a, ts::Trust::kPlatformOrMaker));
  EXPECT_FALSE(store.Trusts(a, ts::Trust::kMakerOnly));
  EXPECT_TRUE(store.Trusts(c, ts::Trust::kMakerOnly));
  EXPECT_FALSE(store.Trusts(d, ts::Trust::kPlatformOrMaker));
}

class ProcessSignatureTest : public tarn::test::TrustedKeysTest {
 protected:
  void TearDown() override { StopChildren(); }
  void StopChildren() {
    for (pid_t pid : children) tarn::test::KillAndReap(pid);
    children.clear();
  }
  // A copy of the helper, signed by key (or left unsigned).
  std::string Helper(const std::string& name, const ts::SigningKey* key) {
    std::string path = root.At(name);
    tarn::test::CopyExecutable(TARN_SECURITY_HELPER, path);
    EXPECT_TRUE(!key || ts::SignFile(path, *key)) << path;
    return path;
  }
  // The same, started in "wait" mode.
  pid_t StartHelper(const std::string& name, const ts::SigningKey* key) {
    children.push_back(tarn::test::Spawn({Helper(name, key), "wait"}));
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
    EXPECT_EQ(v->Verify(pid) == 0, c.trusted);
    EXPECT_EQ(v->VerifyVantrelExe(pid) == 0, c.maker);
    std::string exe, thumb = "?";
    EXPECT_EQ(v->GetAndVerifyTarnCoreExePath(pid, exe) == 0, c.trusted);
    EXPECT_EQ(exe, Exe(c.name));  // given even when refused, for the caller's log
    ASSERT_NE(v->ProcessGetFileThumb(pid, thumb), 0);
    EXPECT_EQ(thumb, c.key ? ts::Fingerprint(c.key->Public()) : "");
  }
}

TEST_F(ProcessSignatureTest, ReplacedExecutableStillJudgedByWhatRuns) {
  pid_t pid = StartHelper("replaced-helper", &maker);
  // An unsigned program now sits at the path; the running image is the signed one.
  tarn::test::CopyExecutable(TARN_SECURITY_HELPER, root.At("other"));
  ASSERT_EQ(std::rename(root.At("other").c_str(), root.At("replaced-helper").c_str()), 0);
  EXPECT_EQ(v->Verify(pid), 0);
  std::string thumb;
  ASSERT_NE(v->ProcessGetFileThumb(pid, thumb), 0);
  EXPECT_EQ(thumb, ts::Fingerprint(maker.Public()));
  // The path no longer names what runs, so it is not handed out.
  std::string exe;
  EXPECT_NE(v->GetAndVerifyTarnCoreExePath(pid, exe), 0);
  EXPECT_EQ(exe, "");
}

TEST_F(ProcessSignatureTest, GoneProcessesAreUnverifiable) {
  const pid_t pid = StartHelper("short-lived", &maker);
  ASSERT_EQ(v->Verify(pid), 0);
  // Exited but not reaped: a zombie has no executable any more.
  ::kill(pid, SIGKILL);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  std::string exe, thumb;
  for (bool reaped : {false, true}) {
    SCOPED_TRACE(reaped);
    if (reaped) StopChildren();
    EXPECT_EQ(v->Verify(pid), static_cast<int>(ts::Status::kProcessGone));
    EXPECT_NE(v->VerifyVantrelExe(pid), 0);
    EXPECT_NE(v->GetAndVerifyTarnCoreExePath(pid, exe), 0);
    EXPECT_EQ(v->ProcessGetFileThumb(pid, thumb), 0);
  }
  for (uint32_t bad : {0u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    SCOPED_TRACE(bad);
    EXPECT_NE(v->Verify(bad), 0);
    EXPECT_NE(v->VerifyVantrelExe(bad), 0);
    EXPECT_EQ(v->ProcessGetFileThumb(bad, thumb), 0);
  }
}

// A request is judged by the process that sent it, not by whatever holds its
// pid when the check runs: once the sender has gone it is unverifiable, even
// when a signed program has been given its pid meanwhile.
TEST_F(ProcessSignatureTest, ARequestWhoseSenderHasGoneIsUnverifiable) {
  TarnCoreIPCMessageServer server;
  ASSERT_TRUE(server.Start());
  TarnCoreIPCMessageClient host(IpcAddressContainer, true, true);
  std::promise<uint32_t> sent;
  std::promise<void> checkNow;
  std::promise<int> verdict;
  host.RegisterMessageCallback(IpcRequestMessageCode, [&](TagIPCMessageItem& item) {
    const uint32_t pid = server.GetCallerPidByMsgId(item.syncMessageId);
    sent.set_value(pid);
    checkNow.get_future().wait();
    verdict.set_value(v->Verify(pid));
  });
  const std::string signedProgram = Helper("signed", &maker);

  // The sender connects, sends and ends.
  const pid_t sender = tarn::test::SendFromChild(server.SocketPathInUse(),
                                                 tarn::test::EncodeFrame(tarn::test::RequestItem(7), "{}"));
  ASSERT_GT(sender, 0);
  auto pid = sent.get_future();
  ASSERT_EQ(pid.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(pid.get(), static_cast<uint32_t>(sender));
  ASSERT_TRUE(tarn::test::Eventually([&] { return server.ConnectionCount() == 0; }));
  // Reaped, its pid is free: given at once to a signed program.
  int status = -1;
  ASSERT_EQ(::waitpid(sender, &status, 0), sender);
  ASSERT_EQ(status, 0);
  children.push_back(tarn::test::SpawnWithPid(sender, {signedProgram, "wait"}));
  checkNow.set_value();
  const int result = verdict.get_future().get();
  host.UnRegisterMessageCallbackAll();
  if (children.back() < 0) GTEST_SKIP() << "the kernel won't give a chosen pid to a new process";
  ASSERT_EQ(v->Verify(sender), 0);  // the new holder of the pid passes on its own
  EXPECT_EQ(result, static_cast<int>(ts::Status::kProcessGone));
}

// The whitelist holds processes, not pids: the entry of a process that ended
// answers for nobody, also not for a new process given the same pid.
TEST_F(ProcessSignatureTest, TheWhitelistForgetsProcessesThatEnded) {
  SignatureManager& whitelist = *SignatureManager::GetInstance();
  whitelist.Clear();
  const pid_t first = StartHelper("first", &maker);
  ASSERT_TRUE(whitelist.AddSignatureWhiteList(first, "app"));
  EXPECT_EQ(whitelist.FindSignatured(first, "app"), 0);
  EXPECT_EQ(whitelist.FindSignatured(first, "other"), 1);
  StopChildren();
  // Where the kernel won't give the pid away on purpose, the first has still ended.
  children.push_back(tarn::test::SpawnWithPid(first, {Helper("second", &maker), "wait"}));
  EXPECT_EQ(whitelist.FindSignatured(first, "app"), 2);
  whitelist.Clear();
}

}  // namespace

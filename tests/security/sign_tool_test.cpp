// tarncore-sign end to end: its commands, messages and exit codes.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "platform/security/signature.h"
#include "security_test_util.h"
#include "support/temp_root.h"

namespace ts = tarn::security;
using tarn::test::ReadText;
using tarn::test::RunProgram;

namespace {

constexpr int kOk = 0, kRejected = 1, kUsage = 2, kFailure = 3;

class SignToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root.MakeDir("keys");
    auto keygen = Run({"keygen", priv, pub});
    ASSERT_EQ(keygen.exitCode, kOk) << keygen.output;
  }
  tarn::test::RunResult Run(const std::vector<std::string>& args) { return RunProgram(TARN_SIGN_TOOL, args); }
  // Exit code, and whether the output holds `text`.
  void Expect(const std::vector<std::string>& args, int code, const std::string& text = "") {
    auto r = Run(args);
    EXPECT_EQ(r.exitCode, code) << args[0] << ": " << r.output;
    EXPECT_NE(r.output.find(text), std::string::npos) << args[0] << ": " << r.output;
  }
  std::string Program(const std::string& name) {
    tarn::test::CopyExecutable(TARN_SECURITY_HELPER, root.At(name));
    return root.At(name);
  }
  tarn::test::TempRoot root;
  std::string priv = root.At("keys/k.pem"), pub = root.At("keys/k.pub");
};

TEST_F(SignToolTest, KeygenSignTrustVerify) {
  auto pubKey = ts::ReadPublicKeyFile(pub);
  ASSERT_TRUE(pubKey);
  EXPECT_EQ(ReadText(pub), ts::KeyToHex(*pubKey) + "\n");
  struct stat st {};
  ASSERT_EQ(::stat(priv.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  Expect({"keygen", priv, pub}, kFailure, "exists");
  EXPECT_EQ(ts::ReadPublicKeyFile(pub), pubKey);  // not replaced

  std::string a = Program("a"), b = Program("b");
  Expect({"sign", "--key", priv, a, b}, kOk);
  EXPECT_EQ(RunProgram(a, {"exit", "5"}).exitCode, 5);
  Expect({"verify", a}, kRejected, "not trusted");  // signed, but not trusted yet

  Expect({"trust", "--platform", pub}, kOk);
  EXPECT_EQ(ts::ReadPublicKeyFile(root.At("etc/tarncore/trusted-keys/k.pub")), pubKey);
  Expect({"verify", a, b}, kOk);
  Expect({"verify", "--maker", a}, kRejected);
  Expect({"trust", "--name", "dev", pub}, kOk);
  EXPECT_EQ(ts::ReadPublicKeyFile(root.At("etc/tarncore/trusted-keys/maker/dev.pub")), pubKey);
  Expect({"verify", "--maker", a}, kOk);
  // The signer of a file, the .pub file and the public half of the private key
  // all give the one fingerprint.
  const std::string fingerprint = ts::Fingerprint(*pubKey) + "\n";
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"fingerprint", a}, {"fingerprint", pub}, {"pubkey", priv, root.At("keys/again.pub")}}) {
    auto r = Run(args);
    EXPECT_EQ(r.exitCode, kOk) << args[0];
    EXPECT_EQ(r.output, fingerprint) << args[0];
  }
  EXPECT_EQ(ReadText(root.At("keys/again.pub")), ReadText(pub));

  // One bad file among good ones fails the whole run.
  std::string plain = Program("plain");
  Expect({"verify", a, plain, b}, kRejected, "plain: FAILED: no signature");
  Expect({"fingerprint", plain}, kRejected);
}

TEST_F(SignToolTest, ErrorsHaveClearMessagesAndCodes) {
  std::string a = Program("a"), nope = root.At("nope"), bad = root.At("bad.pem");
  tarn::test::WriteBytes(bad, "not a key\n");
  tarn::test::WriteBytes(root.At("truncated"), "payload~TarnCoreSigned~");
  struct Case { std::vector<std::string> args; int code; std::string text; };
  for (const Case& c : std::vector<Case>{
           {{"verify", nope}, kFailure, "no such file"},
           {{"sign", "--key", priv, nope}, kFailure, ""},
           {{"fingerprint", nope}, kFailure, ""},
           {{"sign", "--key", bad, a}, kFailure, "bad key"},
           {{"trust", bad}, kFailure, ""},
           {{"sign", "--key", priv, root.At("truncated")}, kFailure, "truncated"},
           {{"verify", root.At("truncated")}, kRejected, "truncated"},
           {{"verify", root.path()}, kFailure, ""},  // a directory
           {{"frobnicate"}, kUsage, ""},
           {{"sign", a}, kUsage, ""},
           {{"verify"}, kUsage, ""},
           {{"keygen", priv}, kUsage, ""},
           {{"pubkey", bad, root.At("bad.pub")}, kFailure, "bad key"},
           {{"--help"}, kOk, "fingerprint FILE"}}) {
    Expect(c.args, c.code, c.text);
  }
  EXPECT_EQ(Run({}).exitCode, kUsage);
  EXPECT_EQ(ReadText(a), ReadText(TARN_SECURITY_HELPER));  // untouched
}

}  // namespace

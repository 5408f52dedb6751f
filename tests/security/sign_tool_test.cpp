// tarncore-sign end to end: its commands, messages and exit codes.
#include <gtest/gtest.h>

#include "platform/security/signature.h"
#include "security_test_util.h"
#include "support/temp_root.h"

namespace ts = tarn::security;
using tarn::test::ReadBytes;
using tarn::test::RunProgram;
using tarn::test::WriteBytes;

namespace {

constexpr int kOk = 0, kRejected = 1, kUsage = 2, kFailure = 3;

class SignToolTest : public ::testing::Test {
 protected:
  tarn::test::TempRoot root;
  const std::string tool = TARN_SIGN_TOOL;
  std::string priv = root.At("keys/k.pem");
  std::string pub = root.At("keys/k.pub");

  std::string Program(const std::string& name) {
    std::string path = root.At(name);
    tarn::test::CopyExecutable(TARN_SECURITY_HELPER, path);
    return path;
  }
};

TEST_F(SignToolTest, KeygenSignTrustVerify) {
  root.MakeDir("keys");
  auto keygen = RunProgram(tool, {"keygen", priv, pub});
  ASSERT_EQ(keygen.exitCode, kOk) << keygen.output;
  auto pubKey = ts::ReadPublicKeyFile(pub);
  ASSERT_TRUE(pubKey);
  EXPECT_EQ(ReadBytes(pub), ts::KeyToHex(*pubKey) + "\n");

  auto again = RunProgram(tool, {"keygen", priv, pub});
  EXPECT_EQ(again.exitCode, kFailure);
  EXPECT_NE(again.output.find("exists"), std::string::npos) << again.output;
  EXPECT_EQ(ts::ReadPublicKeyFile(pub), pubKey);  // not replaced

  std::string a = Program("a"), b = Program("b");
  auto sign = RunProgram(tool, {"sign", "--key", priv, a, b});
  ASSERT_EQ(sign.exitCode, kOk) << sign.output;
  EXPECT_EQ(RunProgram(a, {"exit", "5"}).exitCode, 5);

  // Signed, but the machine does not trust the key yet.
  auto untrusted = RunProgram(tool, {"verify", a});
  EXPECT_EQ(untrusted.exitCode, kRejected);
  EXPECT_NE(untrusted.output.find("not trusted"), std::string::npos) << untrusted.output;

  ASSERT_EQ(RunProgram(tool, {"trust", "--platform", pub}).exitCode, kOk);
  EXPECT_EQ(ts::ReadPublicKeyFile(root.At("etc/tarncore/trusted-keys/k.pub")), pubKey);
  EXPECT_EQ(RunProgram(tool, {"verify", a, b}).exitCode, kOk);
  EXPECT_EQ(RunProgram(tool, {"verify", "--maker", a}).exitCode, kRejected);
  ASSERT_EQ(RunProgram(tool, {"trust", "--name", "dev", pub}).exitCode, kOk);
  EXPECT_EQ(ts::ReadPublicKeyFile(root.At("etc/tarncore/trusted-keys/maker/dev.pub")), pubKey);
  EXPECT_EQ(RunProgram(tool, {"verify", "--maker", a}).exitCode, kOk);

  auto fp = RunProgram(tool, {"fingerprint", a});
  EXPECT_EQ(fp.exitCode, kOk);
  EXPECT_EQ(fp.output, ts::Fingerprint(*pubKey) + "\n");

  // Re-signing replaces the trailer rather than adding one.
  const auto size = ReadBytes(a).size();
  ASSERT_EQ(RunProgram(tool, {"sign", "--key", priv, a}).exitCode, kOk);
  EXPECT_EQ(ReadBytes(a).size(), size);

  // One bad file among good ones fails the whole run.
  std::string plain = Program("plain");
  auto mixed = RunProgram(tool, {"verify", a, plain, b});
  EXPECT_EQ(mixed.exitCode, kRejected);
  EXPECT_NE(mixed.output.find("plain: FAILED: no signature"), std::string::npos) << mixed.output;
  EXPECT_EQ(RunProgram(tool, {"fingerprint", plain}).exitCode, kRejected);
}

TEST_F(SignToolTest, ErrorsHaveClearMessagesAndCodes) {
  root.MakeDir("keys");
  ASSERT_EQ(RunProgram(tool, {"keygen", priv, pub}).exitCode, kOk);
  std::string a = Program("a");

  auto missing = RunProgram(tool, {"verify", root.At("nope")});
  EXPECT_EQ(missing.exitCode, kFailure);
  EXPECT_NE(missing.output.find("no such file"), std::string::npos) << missing.output;
  EXPECT_EQ(RunProgram(tool, {"sign", "--key", priv, root.At("nope")}).exitCode, kFailure);
  EXPECT_EQ(RunProgram(tool, {"fingerprint", root.At("nope")}).exitCode, kFailure);

  WriteBytes(root.At("bad.pem"), "not a key\n");
  auto badKey = RunProgram(tool, {"sign", "--key", root.At("bad.pem"), a});
  EXPECT_EQ(badKey.exitCode, kFailure);
  EXPECT_NE(badKey.output.find("bad key"), std::string::npos) << badKey.output;
  EXPECT_EQ(RunProgram(tool, {"trust", root.At("bad.pem")}).exitCode, kFailure);
  EXPECT_EQ(ReadBytes(a), ReadBytes(TARN_SECURITY_HELPER));  // untouched

  WriteBytes(root.At("truncated"), "payload~TarnCoreSigned~");
  auto truncatedSign = RunProgram(tool, {"sign", "--key", priv, root.At("truncated")});
  EXPECT_EQ(truncatedSign.exitCode, kFailure);
  EXPECT_NE(truncatedSign.output.find("truncated"), std::string::npos) << truncatedSign.output;
  auto truncatedVerify = RunProgram(tool, {"verify", root.At("truncated")});
  EXPECT_EQ(truncatedVerify.exitCode, kRejected);
  EXPECT_NE(truncatedVerify.output.find("truncated"), std::string::npos) << truncatedVerify.output;

  EXPECT_EQ(RunProgram(tool, {"verify", root.path()}).exitCode, kFailure);  // a directory

  EXPECT_EQ(RunProgram(tool, {}).exitCode, kUsage);
  EXPECT_EQ(RunProgram(tool, {"frobnicate"}).exitCode, kUsage);
  EXPECT_EQ(RunProgram(tool, {"sign", a}).exitCode, kUsage);
  EXPECT_EQ(RunProgram(tool, {"verify"}).exitCode, kUsage);
  EXPECT_EQ(RunProgram(tool, {"keygen", priv}).exitCode, kUsage);
  auto help = RunProgram(tool, {"--help"});
  EXPECT_EQ(help.exitCode, kOk);
  EXPECT_NE(help.output.find("fingerprint FILE"), std::string::npos);
}

}  // namespace

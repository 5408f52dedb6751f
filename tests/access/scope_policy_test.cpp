#include "scope_policy.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "fake_scope.h"
#include "scope_service_object.h"

namespace {

namespace fs = std::filesystem;
using access_test::kPolicy;
using tarn::scope::ScopePolicy;
using tarn::zbrf::ZParcel;

class ScopePolicyTest : public ::testing::Test {
 protected:
  void Write(const std::string& text) { access_test::WritePolicy(root_, text); }
  tarn::test::TempRoot root_;
  ScopePolicy policy_{tarn::scope::DefaultPolicyPath()};
};

// The common decisions run end to end through both builds; these are the edges.
TEST_F(ScopePolicyTest, DecisionsAtTheEdges) {
  Write(kPolicy);
  EXPECT_EQ(policy_.CheckCertFingerprint("100", "AB12"), 0);  // case does not matter
  EXPECT_EQ(policy_.CheckCertFingerprint("200", "EF56"), 1000);
  for (auto [client, fingerprint] : std::initializer_list<std::pair<const char*, const char*>>{
           {"200", "AB12"}, {"100", ""}, {"999", "AB12"}, {"300", "not a list"}}) {
    EXPECT_EQ(policy_.CheckCertFingerprint(client, fingerprint), 1) << client << " " << fingerprint;
  }
  EXPECT_TRUE(policy_.CheckPermission("100", "files.read"));  // granted through a scope
  EXPECT_FALSE(policy_.CheckPermission("100", "files.write"));
  EXPECT_FALSE(policy_.CheckPermission("100", ""));
  // With a scope uri, a scope grants only its own permissions.
  EXPECT_FALSE(policy_.CheckApiPermission("100", "mail.send", "https://files"));
  EXPECT_TRUE(policy_.CheckApiPermission("100", "contacts.read", "https://files"));
  auto odd = policy_.GetScopes("300");  // odd scope entries are tolerated
  ASSERT_EQ(odd.size(), 1u);
  EXPECT_EQ(odd[0].name, "odd");
  EXPECT_TRUE(policy_.GetScopes("999").empty());
}

TEST_F(ScopePolicyTest, EachChangeIsReadAndAPolicyThatIsNotJsonOrMissingRefusesEverything) {
  EXPECT_EQ(policy_.CheckCertFingerprint("100", "AB12"), 1);  // no file yet
  for (auto [text, code] : std::initializer_list<std::pair<const char*, int>>{
           {kPolicy, 0}, {"{ \"clients\": { \"100\": { \"fingerprints\": [\"AB12\"] } ", 1}, {"[1, 2]", 1}, {kPolicy, 0}}) {
    Write(text);
    EXPECT_EQ(policy_.CheckCertFingerprint("100", "AB12"), code) << text;
    EXPECT_EQ(policy_.CheckPermission("100", "contacts.read"), code == 0) << text;
  }
  // Same inode, rewritten in place with another size.
  std::ofstream(root_.At("etc/tarncore/scope-policy.json"), std::ios::trunc)
      << R"({ "clients": { "100": { "fingerprints": ["AB12"], "whitelist": false } } })";
  EXPECT_EQ(policy_.CheckCertFingerprint("100", "AB12"), 1000);
  fs::remove(root_.At("etc/tarncore/scope-policy.json"));
  EXPECT_EQ(policy_.CheckCertFingerprint("100", "AB12"), 1);
}

TEST_F(ScopePolicyTest, TheServiceObjectNeedsTheHeaderAndAKnownCodeAndSkipsUnknownFields) {
  Write(kPolicy);
  auto object = std::make_shared<tarn::scope::ScopeServiceObject>(
      std::make_shared<ScopePolicy>(tarn::scope::DefaultPolicyPath()));
  auto request = [](bool header) {
    auto data = ZParcel::CreateInstance();
    if (header) data->WriteHeader();
    data->WriteInt32(9, 1);  // unknown fields are passed over
    data->WriteString(1, "200");
    data->WriteString(2, "EF56");
    return data;
  };
  // Requests without the header, and unknown codes, are not served.
  EXPECT_FALSE(object->OnTransact(1, request(false), ZParcel::CreateInstance(), 0));
  EXPECT_FALSE(object->OnTransact(42, request(true), ZParcel::CreateInstance(), 0));
  auto reply = ZParcel::CreateInstance();
  ASSERT_TRUE(object->OnTransact(1, request(true), reply, 0));
  int32_t status = -1, value = -1;
  reply->ReadStatus(status);
  ASSERT_NE(reply->ReadTag(), 0u);
  reply->ReadInt32(value);
  EXPECT_EQ(value, 1000);
}

}  // namespace

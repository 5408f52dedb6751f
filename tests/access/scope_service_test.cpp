#include "access/scope_service.h"

#include <gtest/gtest.h>

#include <tuple>

#include "fake_scope.h"

namespace {

using access_test::Decode;
using tarn::zbrf::ZObject;
using tarn::zbrf::ZParcel;

// Records each request and answers with fixed reply bytes.
class Remote : public ZObject {
 public:
  bool Transact(uint32_t code, const std::shared_ptr<ZParcel>& data, const std::shared_ptr<ZParcel>& reply,
                uint32_t flags) override {
    requests.push_back(Decode(code, *data));
    flagsSeen.push_back(flags);
    reply->SetData(replyBytes);
    return true;
  }
  std::vector<access_test::DecodedRequest> requests;
  std::vector<uint32_t> flagsSeen;
  std::string replyBytes;
};

std::string ReplyWith(const std::function<void(ZParcel&)>& fields) {
  ZParcel p;
  p.WriteStatus(0);
  fields(p);
  return p.Data();
}

class StubTest : public ::testing::Test {
 protected:
  std::shared_ptr<Remote> remote_ = std::make_shared<Remote>();
  service::ZpScopeService stub_{remote_};
};

TEST_F(StubTest, EachOperationIsOneNumberedTransactionWithItsFields) {
  remote_->replyBytes = ReplyWith([](ZParcel& p) { p.WriteString(2, "other"); });
  int32_t code = 55;
  bool allowed = true;
  std::vector<std::shared_ptr<service::ScopeItem>> items;
  EXPECT_TRUE(stub_.CheckCertFingerprint("app", "FP", code));
  EXPECT_TRUE(stub_.CheckApiPermission("app", "perm", "uri", allowed));
  EXPECT_TRUE(stub_.CheckPermission("app", "perm", allowed));
  EXPECT_TRUE(stub_.SetLastCheckTime("app"));
  EXPECT_TRUE(stub_.GetScopeByAppId("app", items));
  EXPECT_TRUE(stub_.InvokeOpenGateway("app"));
  // A reply without the field leaves the out arguments as they were.
  EXPECT_EQ(code, 55);
  EXPECT_TRUE(allowed);
  EXPECT_TRUE(items.empty());

  // The two whose reply nobody reads go one-way.
  using Fields = std::map<uint32_t, std::vector<std::string>>;
  constexpr uint32_t kOneWay = tarn::zbrf::kFlagOneWay;
  const std::vector<std::tuple<uint32_t, Fields, uint32_t>> expected = {
      {1, {{1, {"app"}}, {2, {"FP"}}}, 0},
      {2, {{1, {"app"}}, {2, {"perm"}}, {3, {"uri"}}}, 0},
      {3, {{1, {"app"}}, {2, {"perm"}}}, 0},
      {4, {{1, {"app"}}}, kOneWay},
      {5, {{1, {"app"}}}, 0},
      {6, {{1, {"app"}}}, kOneWay},
  };
  ASSERT_EQ(remote_->requests.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const auto& [code, fields, flags] = expected[i];
    EXPECT_EQ(std::tuple(remote_->requests[i].code, remote_->requests[i].fields, remote_->flagsSeen[i]),
              std::tuple(code, fields, flags));
    EXPECT_TRUE(remote_->requests[i].header);
  }
  // Even an empty reply (no status word) is an exchange that took place.
  remote_->replyBytes.clear();
  EXPECT_TRUE(stub_.CheckCertFingerprint("a", "b", code));
  EXPECT_EQ(code, 55);
}

TEST_F(StubTest, RepliesSkipUnknownFieldsTakeTheLastRepeatAndScopeItemsInOrder) {
  remote_->replyBytes = ReplyWith([](ZParcel& p) {
    p.WriteString(7, "ignored");
    p.WriteInt32(9, 3);
    p.WriteInt32(1, 1000);
  });
  int32_t code = 0;
  EXPECT_TRUE(stub_.CheckCertFingerprint("a", "b", code));
  EXPECT_EQ(code, 1000);
  remote_->replyBytes = ReplyWith([](ZParcel& p) {
    p.WriteBool(1, true);
    p.WriteBool(1, false);
  });
  bool allowed = true;
  EXPECT_TRUE(stub_.CheckPermission("a", "p", allowed));
  EXPECT_FALSE(allowed);

  service::ScopeItem first;
  first.id = 1;
  first.name = "contacts";
  first.url = std::string(200, 'u');  // a two-byte length inside the item
  first.permissions = {"read", "", "write"};
  ZParcel encoded;
  first.WriteToParcel(encoded);
  EXPECT_EQ(first.Size(), encoded.Size());
  ZParcel shuffled;  // another writer's field order, with a field unknown here
  shuffled.WriteString(4, "b");
  shuffled.WriteString(99, "unknown");
  shuffled.WriteString(2, "name");
  shuffled.WriteInt32(1, -2);
  remote_->replyBytes = ReplyWith([&](ZParcel& p) {
    p.WriteParcelable(1, first);
    p.WriteInt32(3, 8);
    p.WriteString(1, shuffled.Data());
  });
  std::vector<std::shared_ptr<service::ScopeItem>> items;
  ASSERT_TRUE(stub_.GetScopeByAppId("a", items));
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(std::tuple(items[0]->id, items[0]->name, items[0]->url, items[0]->permissions),
            std::tuple(first.id, first.name, first.url, first.permissions));
  EXPECT_EQ(std::tuple(items[1]->id, items[1]->name, items[1]->url, items[1]->permissions),
            std::tuple(-2, std::string("name"), std::string(), std::vector<std::string>{"b"}));
}

}  // namespace

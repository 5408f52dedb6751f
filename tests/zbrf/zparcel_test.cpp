#include "platform/zbrf/zparcel.h"

#include <gtest/gtest.h>

#include <climits>
#include <tuple>

#include "platform/zbrf/zparcelable.h"

namespace {

using tarn::zbrf::ZParcel;
using tarn::zbrf::ZParcelable;

// A record nested in a parcel: field 1 a number, field 2 a text.
class Pair : public ZParcelable {
 public:
  bool WriteToParcel(ZParcel& p) const override {
    p.WriteInt32(1, number);
    p.WriteString(2, text);
    return true;
  }
  bool ReadFromParcel(ZParcel& p) override {
    for (uint32_t tag = p.ReadTag(); tag != 0; tag = p.ReadTag()) {
      if (!(p.TagField(tag) == 1 ? p.ReadInt32(number) : p.TagField(tag) == 2 ? p.ReadString(text) : p.SkipField(tag))) {
        return false;
      }
    }
    return true;
  }
  uint32_t Size() const override { return ZParcel().SizeInt32(1, number) + ZParcel().SizeString(2, text); }
  int32_t number = 0;
  std::string text;
};

std::string Bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(static_cast<char>(v));
  return out;
}

TEST(ZParcel, ValuesSurviveTheirRoundTrip) {
  auto p = ZParcel::CreateInstance();
  p->WriteInt32(1, -5);
  p->WriteInt32(2, INT32_MAX);
  p->WriteBool(3, true);
  p->WriteString(4, std::string("a\0b", 3));
  p->WriteStringVector(5, {"x", "", "zz"});
  Pair pair;  // its size takes a negative number's ten bytes and a two-byte length
  pair.number = -7;
  pair.text = std::string(200, 's');
  p->WriteParcelable(6, pair);

  int32_t negative = 0, max = 0;
  bool flag = false;
  std::string text;
  std::vector<std::string> list(3);
  auto nested = std::make_shared<Pair>();
  auto next = [&](uint32_t field) { return p->TagField(p->ReadTag()) == field; };
  EXPECT_TRUE(next(1) && p->ReadInt32(negative));
  EXPECT_TRUE(next(2) && p->ReadInt32(max));
  EXPECT_TRUE(next(3) && p->ReadBool(flag));
  EXPECT_TRUE(next(4) && p->ReadString(text));
  for (auto& item : list) EXPECT_TRUE(next(5) && p->ReadString(item));
  EXPECT_TRUE(next(6) && p->ReadParcelable(nested));
  EXPECT_EQ(p->ReadTag(), 0u);
  EXPECT_FALSE(p->HasError());
  EXPECT_EQ(std::tuple(negative, max, flag, text), std::tuple(-5, INT32_MAX, true, std::string("a\0b", 3)));
  EXPECT_EQ(list, (std::vector<std::string>{"x", "", "zz"}));
  EXPECT_EQ(std::pair(nested->number, nested->text), std::pair(-7, pair.text));

  // A value of the wrong type is passed over and leaves the out argument.
  auto mixed = ZParcel::CreateInstance();
  mixed->WriteString(1, "not a number");
  mixed->WriteInt32(2, 9);
  int32_t first = 77, second = 0;
  ASSERT_NE(mixed->ReadTag(), 0u);
  EXPECT_FALSE(mixed->ReadInt32(first));
  ASSERT_EQ(mixed->TagField(mixed->ReadTag()), 2u);
  EXPECT_TRUE(mixed->ReadInt32(second));
  EXPECT_EQ(std::pair(first, second), std::pair(77, 9));
}

TEST(ZParcel, TheEncodingIsProtobufs) {
  auto p = ZParcel::CreateInstance();
  p->WriteHeader();
  p->WriteInt32(1, 150);
  p->WriteString(2, "hi");
  p->WriteInt32(3, -1);
  EXPECT_EQ(p->Data(), std::string("ZPC1") + Bytes({0x08, 0x96, 0x01, 0x12, 0x02, 'h', 'i', 0x18, 0xff, 0xff, 0xff,
                                                    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}));
  auto reply = ZParcel::CreateInstance();
  reply->WriteStatus(0x01020304);
  EXPECT_EQ(reply->Data(), Bytes({4, 3, 2, 1}));
}

TEST(ZParcel, UnknownFieldsOfEveryWireTypeAreSkipped) {
  // 7: varint, 8: fixed64, 9: length-delimited, 10: group with a field inside,
  // 11: fixed32, then the field the reader wants.
  auto p = ZParcel::FromBytes(Bytes({7 << 3 | 0, 0x80, 0x01,
                                     8 << 3 | 1, 1, 2, 3, 4, 5, 6, 7, 8,
                                     9 << 3 | 2, 3, 'a', 'b', 'c',
                                     10 << 3 | 3, 1 << 3 | 0, 5, 10 << 3 | 4,
                                     11 << 3 | 5, 1, 2, 3, 4,
                                     1 << 3 | 0, 42}));
  int32_t value = 0;
  for (uint32_t tag = p->ReadTag(); tag != 0; tag = p->ReadTag()) {
    if (p->TagField(tag) == 1) {
      p->ReadInt32(value);
    } else {
      EXPECT_TRUE(p->SkipField(tag));
    }
  }
  EXPECT_EQ(value, 42);
  EXPECT_FALSE(p->HasError());
}

TEST(ZParcel, TruncatedOversizedOrMalformedDataEndsTheReadingForGood) {
  auto whole = ZParcel::CreateInstance();
  whole->WriteString(1, "abcdef");
  std::vector<std::string> cases;
  for (std::size_t cut = 1; cut < 8; ++cut) cases.push_back(whole->Data().substr(0, cut));  // inside the string
  // A varint that never ends; lengths of 2 GiB - 1 and beyond int; field number 0; wire types 6 and 7.
  for (const std::string& bytes : {Bytes({1 << 3 | 0, 0xff, 0xff}), Bytes({1 << 3 | 2, 0xff, 0xff, 0xff, 0xff, 0x07, 'x'}),
                                   Bytes({1 << 3 | 2, 0xff, 0xff, 0xff, 0xff, 0x0f, 'x'}), Bytes({0x00, 1}),
                                   Bytes({1 << 3 | 6, 1}), Bytes({1 << 3 | 7, 1})}) {
    cases.push_back(bytes);
  }
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(::testing::PrintToString(bytes));
    for (int reader = 0; reader < 3; ++reader) {  // skipped, read as text, read as number
      auto p = ZParcel::FromBytes(bytes);
      if (uint32_t tag = p->ReadTag(); tag != 0) {
        std::string text = "kept";
        int32_t number = 5;
        EXPECT_FALSE(reader == 0 ? p->SkipField(tag) : reader == 1 ? p->ReadString(text) : p->ReadInt32(number));
        EXPECT_EQ(text, "kept");
        EXPECT_EQ(number, 5);
      }
      EXPECT_EQ(p->ReadTag(), 0u);
      EXPECT_TRUE(p->HasError());
    }
  }
  // Headers and status words that are short or wrong.
  EXPECT_FALSE(ZParcel::FromBytes("ZPC")->ReadHeader());
  EXPECT_FALSE(ZParcel::FromBytes("ZPC2xxxx")->ReadHeader());
  auto p = ZParcel::FromBytes("ZPC1");
  EXPECT_TRUE(p->ReadHeader());
  EXPECT_EQ(p->ReadTag(), 0u);
  EXPECT_FALSE(p->HasError());
  int32_t status = 9;
  EXPECT_FALSE(ZParcel::FromBytes(Bytes({1, 2, 3}))->ReadStatus(status));
  EXPECT_EQ(status, 9);
}

TEST(ZParcel, NestingDeeperThanTheLimitIsRefused) {
  // Each level wraps the previous one as field 1.
  std::string inner;
  for (int depth = 0; depth < ZParcel::kMaxDepth + 5; ++depth) {
    ZParcel level;
    level.WriteString(1, inner);
    inner = level.Data();
  }
  struct Deep : ZParcelable {
    bool WriteToParcel(ZParcel&) const override { return true; }
    bool ReadFromParcel(ZParcel& p) override {
      for (uint32_t tag = p.ReadTag(); tag != 0; tag = p.ReadTag()) {
        if (!p.ReadParcelable(std::make_shared<Deep>())) return false;
      }
      return true;
    }
    uint32_t Size() const override { return 0; }
  };
  auto p = ZParcel::FromBytes(inner);
  ASSERT_NE(p->ReadTag(), 0u);
  EXPECT_FALSE(p->ReadParcelable(std::make_shared<Deep>()));
}

}  // namespace

#include "platform/zbrf/zparcel.h"

#include <gtest/gtest.h>

#include <climits>

#include "platform/zbrf/zparcelable.h"

namespace {

using tarn::zbrf::ZParcel;
using tarn::zbrf::ZParcelable;

// A record with a nested list, to exercise nested reading.
class Pair : public ZParcelable {
 public:
  bool WriteToParcel(ZParcel& p) const override {
    p.WriteInt32(1, number);
    p.WriteString(2, text);
    return true;
  }
  bool ReadFromParcel(ZParcel& p) override {
    for (uint32_t tag = p.ReadTag(); tag != 0; tag = p.ReadTag()) {
      if (p.TagField(tag) == 1) {
        p.ReadInt32(number);
      } else if (p.TagField(tag) == 2) {
        p.ReadString(text);
      } else {
        p.SkipField(tag);
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
  Pair pair;
  pair.number = 7;
  pair.text = "seven";
  p->WriteParcelable(6, pair);

  int32_t negative = 0, max = 0;
  bool flag = false;
  std::string text;
  std::vector<std::string> list;
  auto nested = std::make_shared<Pair>();
  for (uint32_t tag = p->ReadTag(); tag != 0; tag = p->ReadTag()) {
    switch (p->TagField(tag)) {
      case 1: EXPECT_TRUE(p->ReadInt32(negative)); break;
      case 2: EXPECT_TRUE(p->ReadInt32(max)); break;
      case 3: EXPECT_TRUE(p->ReadBool(flag)); break;
      case 4: EXPECT_TRUE(p->ReadString(text)); break;
      case 5: list.emplace_back(); EXPECT_TRUE(p->ReadString(list.back())); break;
      case 6: EXPECT_TRUE(p->ReadParcelable(nested)); break;
      default: ADD_FAILURE() << "unexpected field";
    }
  }
  EXPECT_FALSE(p->HasError());
  EXPECT_EQ(negative, -5);
  EXPECT_EQ(max, INT32_MAX);
  EXPECT_TRUE(flag);
  EXPECT_EQ(text, std::string("a\0b", 3));
  EXPECT_EQ(list, (std::vector<std::string>{"x", "", "zz"}));
  EXPECT_EQ(nested->number, 7);
  EXPECT_EQ(nested->text, "seven");
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

TEST(ZParcel, SizesMatchWhatIsWritten) {
  for (int32_t value : {0, 1, 127, 128, -1, INT32_MIN, INT32_MAX}) {
    ZParcel p;
    p.WriteInt32(20, value);
    EXPECT_EQ(p.SizeInt32(20, value), p.Size()) << value;
  }
  for (std::size_t length : {0u, 1u, 127u, 128u, 20000u}) {
    ZParcel p;
    std::string text(length, 'q');
    p.WriteString(3, text);
    EXPECT_EQ(p.SizeString(3, text), p.Size()) << length;
  }
}

TEST(ZParcel, UnknownFieldsOfEveryWireTypeAreSkipped) {
  // 7: varint, 8: fixed64, 9: length-delimited, 10: group with a field inside,
  // 11: fixed32, then the field the reader wants.
  std::string bytes = Bytes({7 << 3 | 0, 0x80, 0x01,
                             8 << 3 | 1, 1, 2, 3, 4, 5, 6, 7, 8,
                             9 << 3 | 2, 3, 'a', 'b', 'c',
                             10 << 3 | 3, 1 << 3 | 0, 5, 10 << 3 | 4,
                             11 << 3 | 5, 1, 2, 3, 4,
                             1 << 3 | 0, 42});
  auto p = ZParcel::FromBytes(bytes);
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

TEST(ZParcel, AValueOfTheWrongTypeIsPassedOverAndLeavesTheOutArgument) {
  auto p = ZParcel::CreateInstance();
  p->WriteString(1, "not a number");
  p->WriteInt32(2, 9);
  int32_t first = 77, second = 0;
  ASSERT_NE(p->ReadTag(), 0u);
  EXPECT_FALSE(p->ReadInt32(first));
  EXPECT_EQ(first, 77);
  uint32_t tag = p->ReadTag();
  ASSERT_EQ(p->TagField(tag), 2u);
  EXPECT_TRUE(p->ReadInt32(second));
  EXPECT_EQ(second, 9);
}

TEST(ZParcel, TruncatedDataEndsTheReadingForGood) {
  auto whole = ZParcel::CreateInstance();
  whole->WriteString(1, "abcdef");
  whole->WriteInt32(2, 3);
  for (std::size_t cut = 1; cut < 8; ++cut) {  // inside the string
    auto p = ZParcel::FromBytes(whole->Data().substr(0, cut));
    std::string text = "kept";
    uint32_t tag = p->ReadTag();
    if (tag != 0) {
      EXPECT_FALSE(p->ReadString(text)) << cut;
    }
    EXPECT_EQ(text, "kept") << cut;
    EXPECT_EQ(p->ReadTag(), 0u) << cut;
    EXPECT_TRUE(p->HasError()) << cut;
  }
  // A varint that never ends.
  auto p = ZParcel::FromBytes(Bytes({1 << 3 | 0, 0xff, 0xff}));
  int32_t value = 5;
  ASSERT_NE(p->ReadTag(), 0u);
  EXPECT_FALSE(p->ReadInt32(value));
  EXPECT_EQ(value, 5);
  EXPECT_EQ(p->ReadTag(), 0u);
}

TEST(ZParcel, OversizedLengthsAreRefused) {
  // A string that claims 2 GiB - 1, and one that claims more than int can hold.
  for (const std::string& bytes : {Bytes({1 << 3 | 2, 0xff, 0xff, 0xff, 0xff, 0x07, 'x'}),
                                   Bytes({1 << 3 | 2, 0xff, 0xff, 0xff, 0xff, 0x0f, 'x'})}) {
    auto p = ZParcel::FromBytes(bytes);
    std::string text;
    ASSERT_NE(p->ReadTag(), 0u);
    EXPECT_FALSE(p->ReadString(text));
    EXPECT_TRUE(p->HasError());
    auto q = ZParcel::FromBytes(bytes);
    ASSERT_NE(q->ReadTag(), 0u);
    EXPECT_FALSE(q->SkipField(1 << 3 | 2));
  }
}

TEST(ZParcel, MalformedTagsEndTheReading) {
  // Field number 0, and the wire types 6 and 7 that don't exist.
  for (const std::string& bytes : {Bytes({0x00, 1}), Bytes({1 << 3 | 6, 1}), Bytes({1 << 3 | 7, 1})}) {
    auto p = ZParcel::FromBytes(bytes);
    uint32_t tag = p->ReadTag();
    if (tag != 0) {
      EXPECT_FALSE(p->SkipField(tag));
    }
    EXPECT_EQ(p->ReadTag(), 0u);
    EXPECT_TRUE(p->HasError());
  }
}

TEST(ZParcel, HeaderAndStatusAreCheckedForLength) {
  auto p = ZParcel::FromBytes("ZPC");
  EXPECT_FALSE(p->ReadHeader());
  p = ZParcel::FromBytes("ZPC2xxxx");
  EXPECT_FALSE(p->ReadHeader());
  p = ZParcel::FromBytes("ZPC1");
  EXPECT_TRUE(p->ReadHeader());
  EXPECT_EQ(p->ReadTag(), 0u);
  EXPECT_FALSE(p->HasError());

  int32_t status = 9;
  p = ZParcel::FromBytes(Bytes({1, 2, 3}));
  EXPECT_FALSE(p->ReadStatus(status));
  EXPECT_EQ(status, 9);
}

TEST(ZParcel, RewindReadsAgainFromTheStart) {
  auto p = ZParcel::CreateInstance();
  p->WriteInt32(1, 4);
  int32_t v = 0;
  ASSERT_NE(p->ReadTag(), 0u);
  p->ReadInt32(v);
  EXPECT_EQ(p->ReadTag(), 0u);
  p->Rewind();
  EXPECT_EQ(p->TagField(p->ReadTag()), 1u);
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

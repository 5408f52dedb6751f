#include "platform/zbrf/zparcel.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>

#include "platform/zbrf/zparcelable.h"

namespace tarn::zbrf {

namespace {

using google::protobuf::io::CodedInputStream;
using google::protobuf::io::CodedOutputStream;
using google::protobuf::io::StringOutputStream;
using WFL = google::protobuf::internal::WireFormatLite;

constexpr char kHeader[4] = {'Z', 'P', 'C', '1'};

uint32_t MakeTag(uint32_t field, WFL::WireType type) {
  return WFL::MakeTag(static_cast<int>(field), type);
}

// Appends to a parcel's buffer; the coded stream trims the string when it goes.
class Appender {
 public:
  explicit Appender(std::string& buffer) : stream_(&buffer), out_(&stream_) {}
  CodedOutputStream& out() { return out_; }

 private:
  StringOutputStream stream_;
  CodedOutputStream out_;
};

}  // namespace

ZParcel::~ZParcel() = default;
ZParcelable::~ZParcelable() = default;

std::shared_ptr<ZParcel> ZParcel::CreateInstance() { return std::make_shared<ZParcel>(); }

std::shared_ptr<ZParcel> ZParcel::FromBytes(std::string bytes) {
  auto parcel = std::make_shared<ZParcel>();
  parcel->SetData(std::move(bytes));
  return parcel;
}

void ZParcel::SetData(std::string bytes) {
  buffer_ = std::move(bytes);
  Rewind();
}

void ZParcel::Rewind() {
  position_ = 0;
  lastTag_ = 0;
  failed_ = buffer_.size() > static_cast<std::size_t>(INT_MAX);
}

bool ZParcel::Fail() {
  failed_ = true;
  lastTag_ = 0;
  return false;
}

// Runs one read on a coded stream over the unread bytes and moves the read
// position by what it consumed.
template <class Read>
static bool ReadAt(const std::string& buffer, std::size_t& position, Read read) {
  const auto* start = reinterpret_cast<const uint8_t*>(buffer.data()) + position;
  CodedInputStream in(start, static_cast<int>(buffer.size() - position));
  bool ok = read(in);
  if (ok) position += static_cast<std::size_t>(in.CurrentPosition());
  return ok;
}

uint32_t ZParcel::ReadTag() {
  if (failed_ || position_ >= buffer_.size()) {
    lastTag_ = 0;
    return 0;
  }
  uint32_t tag = 0;
  if (!ReadAt(buffer_, position_, [&](CodedInputStream& in) {
        tag = in.ReadTag();
        return tag != 0;
      })) {
    Fail();
    return 0;
  }
  // Field 0 does not exist in the wire format: the data is garbage from here.
  if (WFL::GetTagFieldNumber(tag) == 0) {
    Fail();
    return 0;
  }
  lastTag_ = tag;
  return tag;
}

uint32_t ZParcel::TagField(uint32_t tag) const { return tag >> 3; }

bool ZParcel::WireTypeIs(uint32_t wireType) {
  if (failed_) return false;
  if (lastTag_ == 0 || WFL::GetTagWireType(lastTag_) == wireType) return true;
  SkipField(lastTag_);
  return false;
}

bool ZParcel::ReadInt32(int32_t& value) {
  if (!WireTypeIs(WFL::WIRETYPE_VARINT)) return false;
  uint32_t raw = 0;
  if (!ReadAt(buffer_, position_, [&](CodedInputStream& in) { return in.ReadVarint32(&raw); })) {
    return Fail();
  }
  value = static_cast<int32_t>(raw);
  return true;
}

bool ZParcel::ReadBool(bool& value) {
  if (!WireTypeIs(WFL::WIRETYPE_VARINT)) return false;
  uint64_t raw = 0;
  if (!ReadAt(buffer_, position_, [&](CodedInputStream& in) { return in.ReadVarint64(&raw); })) {
    return Fail();
  }
  value = raw != 0;
  return true;
}

bool ZParcel::ReadString(std::string& value) {
  if (!WireTypeIs(WFL::WIRETYPE_LENGTH_DELIMITED)) return false;
  std::string text;
  if (!ReadAt(buffer_, position_, [&](CodedInputStream& in) {
        int length = 0;
        return in.ReadVarintSizeAsInt(&length) && in.ReadString(&text, length);
      })) {
    return Fail();
  }
  value = std::move(text);
  return true;
}

bool ZParcel::ReadParcelable(const std::shared_ptr<ZParcelable>& value) {
  if (!WireTypeIs(WFL::WIRETYPE_LENGTH_DELIMITED)) return false;
  std::string bytes;
  if (!ReadAt(buffer_, position_, [&](CodedInputStream& in) {
        int length = 0;
        return in.ReadVarintSizeAsInt(&length) && in.ReadString(&bytes, length);
      })) {
    return Fail();
  }
  if (!value) return true;
  if (depth_ >= kMaxDepth) return Fail();
  ZParcel nested;
  nested.depth_ = depth_ + 1;
  nested.SetData(std::move(bytes));
  return value->ReadFromParcel(nested) && !nested.HasError();
}

bool ZParcel::ReadStatus(int32_t& status) {
  if (failed_) return false;
  uint32_t raw = 0;
  if (!ReadAt(buffer_, position_, [&](CodedInputStream& in) { return in.ReadLittleEndian32(&raw); })) {
    return Fail();
  }
  status = static_cast<int32_t>(raw);
  return true;
}

bool ZParcel::ReadHeader() {
  if (failed_ || buffer_.size() - position_ < sizeof(kHeader)) return Fail();
  if (buffer_.compare(position_, sizeof(kHeader), kHeader, sizeof(kHeader)) != 0) return Fail();
  position_ += sizeof(kHeader);
  return true;
}

bool ZParcel::SkipField(uint32_t tag) {
  if (failed_) return false;
  if (!ReadAt(buffer_, position_, [&](CodedInputStream& in) { return WFL::SkipField(&in, tag); })) {
    return Fail();
  }
  lastTag_ = 0;
  return true;
}

void ZParcel::WriteInt32(uint32_t field, int32_t value) {
  Appender a(buffer_);
  a.out().WriteTag(MakeTag(field, WFL::WIRETYPE_VARINT));
  a.out().WriteVarint32SignExtended(value);
}

void ZParcel::WriteBool(uint32_t field, bool value) {
  Appender a(buffer_);
  a.out().WriteTag(MakeTag(field, WFL::WIRETYPE_VARINT));
  a.out().WriteVarint32(value ? 1 : 0);
}

void ZParcel::WriteString(uint32_t field, const std::string& value) {
  Appender a(buffer_);
  a.out().WriteTag(MakeTag(field, WFL::WIRETYPE_LENGTH_DELIMITED));
  a.out().WriteVarint32(static_cast<uint32_t>(value.size()));
  a.out().WriteString(value);
}

void ZParcel::WriteStringVector(uint32_t field, const std::vector<std::string>& values) {
  for (const auto& value : values) WriteString(field, value);
}

void ZParcel::WriteParcelable(uint32_t field, const ZParcelable& value) {
  ZParcel nested;
  value.WriteToParcel(nested);
  WriteString(field, nested.Data());
}

void ZParcel::WriteHeader() {
  Appender a(buffer_);
  a.out().WriteRaw(kHeader, sizeof(kHeader));
}

void ZParcel::WriteStatus(int32_t status) {
  Appender a(buffer_);
  a.out().WriteLittleEndian32(static_cast<uint32_t>(status));
}

uint32_t ZParcel::SizeInt32(uint32_t field, int32_t value) const {
  return static_cast<uint32_t>(WFL::TagSize(static_cast<int>(field), WFL::TYPE_INT32) +
                               WFL::Int32Size(value));
}

uint32_t ZParcel::SizeString(uint32_t field, const std::string& value) const {
  return static_cast<uint32_t>(WFL::TagSize(static_cast<int>(field), WFL::TYPE_STRING) +
                               WFL::StringSize(value));
}

}  // namespace tarn::zbrf

#pragma once
// A parcel: the byte buffer that carries one request or one reply of a service
// transaction. Fields use the protobuf wire format (tag = field << 3 | wire
// type; int32 and bool as varints, strings and nested records length-delimited)
// written and read through protobuf's coded streams, so readers can skip what
// they don't know and fields may come in any order.
//
// A request starts with the four bytes "ZPC1" (WriteHeader); a reply starts
// with a 4-byte little-endian status word (WriteStatus / ReadStatus).
//
// Reading stops for good at the first malformed or truncated field: ReadTag
// then gives 0, as at the end, and HasError() tells the two apart.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarn::zbrf {

class ZParcelable;

class ZParcel {
 public:
  static std::shared_ptr<ZParcel> CreateInstance();
  // A parcel to read the given bytes from.
  static std::shared_ptr<ZParcel> FromBytes(std::string bytes);

  ZParcel() = default;
  virtual ~ZParcel();

  // Next tag, or 0 at the end of the data or after an error.
  virtual uint32_t ReadTag();
  virtual uint32_t TagField(uint32_t tag) const;
  // The Read* calls read the value of the field whose tag was read last. A
  // value of another wire type is skipped and gives false, the out argument
  // untouched; so does a truncated value (which also ends the reading).
  virtual bool ReadInt32(int32_t& value);
  virtual bool ReadBool(bool& value);
  virtual bool ReadString(std::string& value);
  virtual bool ReadParcelable(const std::shared_ptr<ZParcelable>& value);
  virtual bool ReadStatus(int32_t& status);
  virtual bool SkipField(uint32_t tag);
  virtual void WriteInt32(uint32_t field, int32_t value);
  virtual void WriteString(uint32_t field, const std::string& value);
  virtual void WriteStringVector(uint32_t field, const std::vector<std::string>& values);
  virtual void WriteHeader();
  virtual void Rewind();
  virtual uint32_t SizeInt32(uint32_t field, int32_t value) const;
  virtual uint32_t SizeString(uint32_t field, const std::string& value) const;

  // What the serving side needs besides.
  virtual void WriteBool(uint32_t field, bool value);
  virtual void WriteParcelable(uint32_t field, const ZParcelable& value);
  virtual void WriteStatus(int32_t status);
  // True when the next four bytes are the request header "ZPC1"; consumes them.
  virtual bool ReadHeader();

  // The encoded bytes, for transports.
  const std::string& Data() const { return buffer_; }
  // Replaces the contents and rewinds.
  void SetData(std::string bytes);
  std::size_t Size() const { return buffer_.size(); }
  std::size_t Position() const { return position_; }
  bool HasError() const { return failed_; }

  // Deepest nesting of records that ReadParcelable follows.
  static constexpr int kMaxDepth = 32;

 private:
  bool Fail();
  bool WireTypeIs(uint32_t wireType);

  std::string buffer_;
  std::size_t position_ = 0;
  uint32_t lastTag_ = 0;
  bool failed_ = false;
  int depth_ = 0;
};

}  // namespace tarn::zbrf

#pragma once
// Base of the records that travel inside a parcel as nested fields.
#include <cstdint>

namespace tarn::zbrf {

class ZParcel;

class ZParcelable {
 public:
  virtual ~ZParcelable();
  // Writes the record's fields (without an enclosing tag or length).
  virtual bool WriteToParcel(ZParcel& parcel) const = 0;
  // Reads fields until the parcel's end, skipping unknown ones.
  virtual bool ReadFromParcel(ZParcel& parcel) = 0;
  // Encoded size of what WriteToParcel writes.
  virtual uint32_t Size() const = 0;
};

}  // namespace tarn::zbrf

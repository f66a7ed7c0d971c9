#pragma once

#include <binder/Parcel.h>

#include "Deserialization.h"

namespace tavrin_binder {

// Reads values from a binder Parcel, one Parcel call per operation, with the
// Parcel's own failure values. Does not own the Parcel.
class Deserialization_Binder : public tavrin::Deserialization {
  public:
    explicit Deserialization_Binder(const android::Parcel* parcel) : mParcel(parcel) {}

    int read(void* destination, size_t length) override;
    int32_t readInt32() override;
    int64_t readInt64() override;
    float readFloat() override;
    double readDouble() override;
    const char* readCString() override;
    int readFileDescriptor() override;
    size_t dataAvail() const override;

  private:
    const android::Parcel* mParcel;
};

}  // namespace tavrin_binder

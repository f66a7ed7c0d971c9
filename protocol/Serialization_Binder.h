#pragma once

#include <binder/Parcel.h>

#include "Serialization.h"

namespace tavrin_binder {

// Writes values into a binder Parcel, one Parcel call per operation, with the
// Parcel's own layout and statuses. Does not own the Parcel.
class Serialization_Binder : public tavrin::Serialization {
  public:
    explicit Serialization_Binder(android::Parcel* parcel) : mParcel(parcel) {}

    int write(const void* data, size_t length) override;
    int writeInt32(int32_t value) override;
    int writeInt64(int64_t value) override;
    int writeFloat(float value) override;
    int writeDouble(double value) override;
    int writeCString(const char* text) override;
    int writeDupFileDescriptor(int fd) override;

  private:
    android::Parcel* mParcel;
};

}  // namespace tavrin_binder

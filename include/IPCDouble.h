#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// A double, eight bytes on the wire.
class IPCDouble : public IPCBasicClass {
  public:
    explicit IPCDouble(double value = 0.0) : mValue(value) {}

    double get() const { return mValue; }
    void set(double value) { mValue = value; }

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    double mValue;
};

}  // namespace tavrin

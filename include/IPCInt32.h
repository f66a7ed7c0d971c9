#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// A signed 32-bit integer, one int32 on the wire.
class IPCInt32 : public IPCBasicClass {
  public:
    explicit IPCInt32(int32_t value = 0) : mValue(value) {}

    int32_t get() const { return mValue; }
    void set(int32_t value) { mValue = value; }

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    int32_t mValue;
};

}  // namespace tavrin

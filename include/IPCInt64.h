#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// A signed 64-bit integer, one int64 on the wire.
class IPCInt64 : public IPCBasicClass {
  public:
    explicit IPCInt64(int64_t value = 0) : mValue(value) {}

    int64_t get() const { return mValue; }
    void set(int64_t value) { mValue = value; }

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    int64_t mValue;
};

}  // namespace tavrin

#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// A bool, one int32 on the wire: 1 for true, 0 for false; any non-zero reads as true.
class IPCBool : public IPCBasicClass {
  public:
    explicit IPCBool(bool value = false) : mValue(value) {}

    bool get() const { return mValue; }
    void set(bool value) { mValue = value; }

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    bool mValue;
};

}  // namespace tavrin

#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// An array of bools.
//
// On the wire: the int32 count, then, only when it is positive, one int32 per element (1 or 0).
// A count received from a peer that is too large for 32-bit buffer sizes or
// for the data left in the message yields an empty array.
class IPCBoolArray : public IPCBasicClass {
  public:
    IPCBoolArray() = default;
    ~IPCBoolArray() override;
    IPCBoolArray(const IPCBoolArray&) = delete;
    IPCBoolArray& operator=(const IPCBoolArray&) = delete;

    // Copies `size` elements (size > 0) from `data`, freeing any previous buffer.
    void init(const bool* data, int size);
    bool* base() { return value; }
    int size() const { return mSize; }
    // Requires mSize > 0 and i >= 0; an index at or past the end refers to element 0.
    bool& operator[](int i);

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    bool* value = nullptr;  // mSize elements, from malloc
    int32_t mSize = 0;      // negative only when a peer sent a negative count
};

}  // namespace tavrin

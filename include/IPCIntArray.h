#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// An array of signed 32-bit integers.
//
// On the wire: the int32 count, then, only when it is positive, the elements' bytes.
// A count received from a peer that is too large for 32-bit buffer sizes or
// for the data left in the message yields an empty array.
class IPCIntArray : public IPCBasicClass {
  public:
    IPCIntArray() = default;
    ~IPCIntArray() override;
    IPCIntArray(const IPCIntArray&) = delete;
    IPCIntArray& operator=(const IPCIntArray&) = delete;

    // Copies `size` elements (size > 0) from `data`, freeing any previous buffer.
    void init(const int* data, int size);
    int* base() { return value; }
    int size() const { return mSize; }
    // Requires mSize > 0 and i >= 0; an index at or past the end refers to element 0.
    int& operator[](int i);

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    int* value = nullptr;  // mSize elements, from malloc
    int32_t mSize = 0;     // negative only when a peer sent a negative count
};

}  // namespace tavrin

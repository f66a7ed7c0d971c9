#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// An array of unsigned 32-bit integers.
//
// On the wire: the int32 count, then, only when it is positive, the elements' bytes.
// A count received from a peer that is too large for 32-bit buffer sizes or
// for the data left in the message yields an empty array.
class IPCUIntArray : public IPCBasicClass {
  public:
    IPCUIntArray() = default;
    ~IPCUIntArray() override;
    IPCUIntArray(const IPCUIntArray&) = delete;
    IPCUIntArray& operator=(const IPCUIntArray&) = delete;

    // Copies `size` elements (size > 0) from `data`, freeing any previous buffer.
    void init(const unsigned int* data, int size);
    unsigned int* base() { return value; }
    int size() const { return mSize; }
    // Requires mSize > 0 and i >= 0; an index at or past the end refers to element 0.
    unsigned int& operator[](int i);

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    unsigned int* value = nullptr;  // mSize elements, from malloc
    int32_t mSize = 0;              // negative only when a peer sent a negative count
};

}  // namespace tavrin

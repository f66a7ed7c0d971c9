#pragma once

#include <stdint.h>

#include "IPCBasicClass.h"

namespace tavrin {

// An array of bytes.
//
// On the wire: the int32 count, then, only when it is positive, the bytes, padded to a multiple
// of 4. A count received from a peer that is too large for 32-bit buffer sizes or for the data left
// in the message yields an empty array.
class IPCUCharArray : public IPCBasicClass {
  public:
    IPCUCharArray() = default;
    ~IPCUCharArray() override;
    IPCUCharArray(const IPCUCharArray&) = delete;
    IPCUCharArray& operator=(const IPCUCharArray&) = delete;

    // Copies `size` elements (size > 0) from `data`, freeing any previous buffer.
    void init(const unsigned char* data, int size);
    unsigned char* base() { return value; }
    int size() const { return mSize; }
    // Requires mSize > 0 and i >= 0; an index at or past the end refers to element 0.
    unsigned char& operator[](int i);

    void serialization(Serialization& out) override;
    void deserialization(Deserialization& in) override;

  private:
    unsigned char* value = nullptr;  // mSize elements, from malloc
    int32_t mSize = 0;               // negative only when a peer sent a negative count
};

}  // namespace tavrin

#pragma once

#include <stddef.h>
#include <stdint.h>

namespace tavrin {

// Reader that values deserialise themselves from, in the order they were
// written. Past the end the numeric readers return 0, readCString null and
// readFileDescriptor a negative number.
class Deserialization {
  public:
    virtual ~Deserialization() = default;
    // Reads `length` bytes and consumes their padding; a status, 0 on success.
    virtual int read(void* destination, size_t length) = 0;
    virtual int32_t readInt32() = 0;
    virtual int64_t readInt64() = 0;
    virtual float readFloat() = 0;
    virtual double readDouble() = 0;
    // Points into the message; null when no string is left.
    virtual const char* readCString() = 0;
    // Stays owned by the message; keep a dup() of it to hold it longer.
    virtual int readFileDescriptor() = 0;
    // Bytes left to read, so that counts received from a peer can be checked
    // before anything is allocated for them. Readers that cannot tell return
    // SIZE_MAX.
    virtual size_t dataAvail() const { return SIZE_MAX; }
};

}  // namespace tavrin

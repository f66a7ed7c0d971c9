#pragma once

#include <stddef.h>
#include <stdint.h>

namespace tavrin {

// Writer that values serialise themselves to. Each item starts on a 4-byte
// boundary; nothing identifies items, so a reader must read the same sequence.
// Results are statuses: 0 on success, a negative error code otherwise.
class Serialization {
  public:
    virtual ~Serialization() = default;
    // Writes `length` bytes, padded to a multiple of 4.
    virtual int write(const void* data, size_t length) = 0;
    virtual int writeInt32(int32_t value) = 0;
    virtual int writeInt64(int64_t value) = 0;
    virtual int writeFloat(float value) = 0;
    virtual int writeDouble(double value) = 0;
    // Writes the characters and the NUL, padded to a multiple of 4.
    virtual int writeCString(const char* text) = 0;
    // The message carries a duplicate; the caller keeps `fd`.
    virtual int writeDupFileDescriptor(int fd) = 0;
};

}  // namespace tavrin

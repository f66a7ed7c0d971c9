#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "Deserialization.h"
#include "Serialization.h"
#include "utils/Assert.h"

// The code shared by the four array value classes: their preconditions, their
// wire form (an int32 count, then the body only when the count is positive)
// and the checks that keep a count received from a peer from reaching an
// allocation or an assertion it cannot satisfy.
namespace tavrin {
namespace array_wire {

// The source text named by the arrays' precondition reports.
inline constexpr char kCheckFile[] = "protocol/IPCClass";

// Whether `count` (> 0) elements received from a peer can be read: their
// buffer of `bufferBytes` must fit 32 bits and their `wireBytes` must lie
// within `dataAvail`. Otherwise logs a warning naming `className`.
bool admitReceivedCount(int32_t count, uint64_t bufferBytes, uint64_t wireBytes, size_t dataAvail,
                        const char* className);
void warnAllocationFailed(int32_t count, const char* className);
void warnReadFailed(int32_t count, const char* className);

inline uint64_t paddedTo4(uint64_t bytes) {
    return (bytes + 3) & ~uint64_t{3};
}

template <typename T>
void clear(T*& value, int32_t& mSize) {
    free(value);
    value = nullptr;
    mSize = 0;
}

// Replaces the array's content with a copy of `size` (> 0) elements of `data`.
template <typename T>
void init(T*& value, int32_t& mSize, const T* data, int size, const char* function) {
    assertOrAbort(size > 0, "size>0", kCheckFile, __LINE__, function);
    clear(value, mSize);
    const size_t bytes = static_cast<size_t>(size) * sizeof(T);
    value = static_cast<T*>(malloc(bytes));
    assertOrAbort(value != nullptr, "value!=NULL", kCheckFile, __LINE__, function);
    memcpy(value, data, bytes);
    mSize = size;
}

// Element `i`, or element 0 when `i` is at or past the end.
template <typename T>
T& at(T* value, int32_t mSize, int i, const char* function) {
    assertOrAbort(mSize > 0, "mSize>0", kCheckFile, __LINE__, function);
    assertOrAbort(i >= 0, "i>=0", kCheckFile, __LINE__, function);
    return i < mSize ? value[i] : value[0];
}

// Arrays whose body is their buffer, written in one block.
template <typename T>
void writeBlock(Serialization& out, const T* value, int32_t mSize) {
    out.writeInt32(mSize);
    if (mSize > 0) out.write(value, static_cast<size_t>(mSize) * sizeof(T));
}

// Any previous buffer is freed first. A count of 0 or less is kept as
// received, with no buffer; a count that cannot be read leaves an empty
// array and nothing further is read.
template <typename T>
void readBlock(Deserialization& in, T*& value, int32_t& mSize, const char* className) {
    clear(value, mSize);
    const int32_t count = in.readInt32();
    if (count <= 0) {
        mSize = count;
        return;
    }
    const uint64_t bytes = static_cast<uint64_t>(count) * sizeof(T);
    if (!admitReceivedCount(count, bytes, paddedTo4(bytes), in.dataAvail(), className)) return;
    T* buffer = static_cast<T*>(malloc(bytes));
    if (buffer == nullptr) {
        warnAllocationFailed(count, className);
        return;
    }
    if (in.read(buffer, bytes) != 0) {
        warnReadFailed(count, className);
        free(buffer);
        return;
    }
    value = buffer;
    mSize = count;
}

}  // namespace array_wire
}  // namespace tavrin

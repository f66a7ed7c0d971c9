#pragma once

// What every fuzz target shares: reading its input, making a Parcel the way
// the transport hands one to a receiver, and keeping the library's log quiet.

#include <android/log.h>
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "wire/FlatObject.h"

namespace fuzz {

// Stops the target with a message libFuzzer keeps next to the crash.
#define FUZZ_CHECK(condition)                                                             \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                      \
        }                                                                                 \
    } while (0)

using Bytes = std::vector<uint8_t>;

// Reads an input front to back. Past its end everything reads as zero or
// empty, so that any input is a valid one.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    bool empty() const { return mSize == 0; }

    uint8_t byte() {
        if (mSize == 0) return 0;
        --mSize;
        return *mData++;
    }

    uint32_t u32() {
        uint32_t value = 0;
        for (int shift = 0; shift < 32; shift += 8) value |= uint32_t{byte()} << shift;
        return value;
    }

    // A little-endian 16-bit length, then that many bytes (fewer at the end).
    Bytes chunk() {
        size_t length = byte();
        length |= size_t{byte()} << 8;
        return take(length);
    }

    Bytes rest() { return take(mSize); }

  private:
    Bytes take(size_t length) {
        length = std::min(length, mSize);
        Bytes out(mData, mData + length);
        mData += length;
        mSize -= length;
        return out;
    }

    const uint8_t* mData;
    size_t mSize;
};

// The local object that binder records in fuzzed data stand for.
inline const android::sp<android::BBinder>& stubBinder() {
    static const auto* stub = new android::sp<android::BBinder>(new android::BBinder());
    return *stub;
}

// Whether the transport would take `record` into a Parcel's object table.
inline bool isObjectRecord(const android::tvbinder::FlatObject& record) {
    using android::tvbinder::FlatObject;
    if (record.reserved != 0) return false;
    if (record.type == FlatObject::kTypeFd) {
        return record.endpoint == 0 && record.tokenHi == 0 && record.tokenLo == 0;
    }
    return record.type == FlatObject::kTypeBinder && record.endpoint != 0 &&
           (record.tokenHi != 0 || record.tokenLo != 0);
}

// Fills `parcel` with `content` as received from another process: every
// 4-aligned, non-overlapping object record in it becomes an object of the
// Parcel, a binder record the stub binder and a descriptor record a
// descriptor of /dev/null that the Parcel owns.
inline void fillReceived(android::Parcel& parcel, const Bytes& content) {
    using android::tvbinder::FlatObject;
    constexpr size_t kMaxObjects = 64;  // bounds the descriptors one input opens
    std::vector<android::Parcel::Object> objects;
    for (size_t offset = 0;
         offset + sizeof(FlatObject) <= content.size() && objects.size() < kMaxObjects;) {
        FlatObject record;
        memcpy(&record, content.data() + offset, sizeof(record));
        if (!isObjectRecord(record)) {
            offset += 4;
            continue;
        }
        android::Parcel::Object object;
        object.offset = offset;
        if (record.type == FlatObject::kTypeFd) {
            object.fd = open("/dev/null", O_RDWR | O_CLOEXEC);
            FUZZ_CHECK(object.fd >= 0);
        } else {
            object.binder = stubBinder();
        }
        objects.push_back(object);
        offset += sizeof(FlatObject);
    }
    auto* data = static_cast<uint8_t*>(malloc(std::max<size_t>(content.size(), 1)));
    FUZZ_CHECK(data != nullptr);
    if (!content.empty()) memcpy(data, content.data(), content.size());
    parcel.ipcSetReceived(data, content.size(), std::move(objects));
}

// The library logs every malformed message it meets; only fatal lines matter here.
inline void quietLogs() {
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
}

}  // namespace fuzz

#pragma once

#include <binder/Parcel.h>
#include <stdint.h>
#include <string.h>

#include <initializer_list>
#include <vector>

namespace tavrin_test {

using Bytes = std::vector<uint8_t>;

inline Bytes bytesOf(const android::Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

// Little-endian int32 words, as the Parcel lays them out on this machine.
inline Bytes words(std::initializer_list<int32_t> values) {
    Bytes out;
    for (int32_t value : values) {
        const uint32_t bits = static_cast<uint32_t>(value);
        for (int shift = 0; shift < 32; shift += 8) out.push_back((bits >> shift) & 0xff);
    }
    return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A Parcel holding exactly `content`, positioned at its start.
inline void fill(android::Parcel& parcel, const Bytes& content) {
    parcel.write(content.data(), content.size());
    parcel.setDataPosition(0);
}

}  // namespace tavrin_test

#pragma once

#include <stdint.h>

namespace android {
namespace tvbinder {

// The record that stands for an embedded object inside a Parcel's data. It is
// already in wire form: a binder is named by the endpoint of the process that
// owns it plus an unguessable token that the owner gave it. The data is only
// 4-byte aligned, so records are copied in and out with memcpy.
struct FlatObject {
    enum : uint32_t {
        kTypeBinder = 0x62646e72,  // "bdnr"
        kTypeFd = 0x66646573,      // "fdes"
    };
    uint32_t type;
    uint32_t reserved;  // zero
    uint64_t endpoint;  // kTypeBinder: owner's endpoint id; 0 with a zero token is the null binder
    uint64_t tokenHi;   // kTypeBinder: the owner's token for the object
    uint64_t tokenLo;   // kTypeFd: both zero
};
static_assert(sizeof(FlatObject) == 32, "FlatObject is a fixed 32-byte wire record");

}  // namespace tvbinder
}  // namespace android

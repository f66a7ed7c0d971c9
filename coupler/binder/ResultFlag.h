#pragma once

#include <binder/Parcel.h>

#include "IPCClass.h"
#include "Protocol.h"
#include "protocol/UniversalSerialization.h"
#include "tv_sp.h"

namespace tavrin_binder {

// Results, answers and configurations travel behind a flag: int32 1 and the
// value in universal form, or int32 0 when there is none.

inline void writeResult(tavrin::tv_sp<tavrin::IPCClass>& result, android::Parcel& reply) {
    if (result.isNull()) {
        reply.writeInt32(0);
        return;
    }
    reply.writeInt32(1);
    UniversalSerialization::writeValue(*result, reply);
}

// Only the exact flag 1 announces a value; an empty reply reads as 0. The
// result owns the value, or holds none.
inline tavrin::tv_sp<tavrin::IPCClass> readResult(tavrin::Protocol& protocol,
                                                  const android::Parcel& reply) {
    if (reply.readInt32() != 1) return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    return tavrin::tv_sp<tavrin::IPCClass>(UniversalSerialization::readValue(protocol, reply));
}

}  // namespace tavrin_binder

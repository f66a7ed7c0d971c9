#pragma once

#include <stdint.h>

namespace tavrin_binder {

// Transactions understood by a sub-service's binder object (its
// SubServiceCarrier). ADD_NOTIFIER and IPC_CALL have the layouts of the
// master service's codes of the same names, so that a client speaks to a
// service and to a sub-service alike; every other code, 1 included, gets the
// platform's default handling.
struct SubServiceCarrierCode {
    enum : uint32_t {
        // client: strong binder (its notifier) -> int32 0, or -1 without a binder
        ADD_NOTIFIER = 0,
        // client: ClientInfo, value -> int32 1 + value | int32 0 | nothing (undecodable)
        IPC_CALL = 2,
        // master: value -> int32 1 + value | int32 0 | nothing (undecodable)
        MASTER_IPC_CALL = 6,
    };
};

}  // namespace tavrin_binder

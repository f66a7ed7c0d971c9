#pragma once

#include <stdint.h>

namespace tavrin_binder {

// Transactions understood by a published service's binder object (its
// ServiceCarrier). The code alone selects the operation: there is no header,
// interface token or version. Every request is synchronous; outcomes travel
// in the reply, whose status is always NO_ERROR.
struct ServiceCarrierCode {
    enum : uint32_t {
        // client: strong binder (its notifier) -> int32 0, or -1 without a binder
        ADD_NOTIFIER = 0,
        // client: nothing -> int32 0
        REMOVE_NOTIFIER = 1,
        // client: ClientInfo, value -> int32 1 + value | int32 0 | nothing (undecodable)
        IPC_CALL = 2,
        // client: C string name, int32 timeout ms -> int32 0 + strong binder | int32 -1
        GET_SUB_SERVICE = 3,
        // sub-service: C string name, value -> int32 1 + value | int32 0
        SUB_SERVICE_IPC_CALL = 4,
        // sub-service: C string name, strong binder -> int32 -1 | int32 0, then
        // int32 1 + configuration value | int32 0
        REGISTER_SUB_SERVICE = 5,
    };
};

// The one transaction of a client's notifier object, one-way for sendNotify
// and synchronous for sendNotifyEx: ClientInfo, int32 wantReply, value ->
// (wantReply only) int32 1 + answer value | int32 0.
struct NotifierCode {
    enum : uint32_t { NOTIFY = 0 };
};

}  // namespace tavrin_binder

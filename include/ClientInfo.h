#pragma once

#include <stdint.h>

#include <tuple>

namespace tavrin {

// Identifies one client handle across processes: sent before every call and
// notification, and the address of a notification.
struct ClientInfo {
    int32_t pid = 0;    // the client process
    int32_t tag = 0;    // chosen by the client when it bound
    int32_t objID = 0;  // the handle's number within its manager, from 1

    friend bool operator<(const ClientInfo& a, const ClientInfo& b) {
        return std::tie(a.pid, a.tag, a.objID) < std::tie(b.pid, b.tag, b.objID);
    }
    friend bool operator==(const ClientInfo& a, const ClientInfo& b) {
        return a.pid == b.pid && a.tag == b.tag && a.objID == b.objID;
    }
    friend bool operator!=(const ClientInfo& a, const ClientInfo& b) { return !(a == b); }
};

}  // namespace tavrin

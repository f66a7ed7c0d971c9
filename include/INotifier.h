#pragma once

#include "ClientInfo.h"
#include "IPCClass.h"
#include "tv_sp.h"

namespace tavrin {

// Handed to a service or sub-service so that it can notify its clients.
// `client` addresses one client handle: its pid picks the process and the
// whole record picks the handle there. `value` stays the caller's.
class INotifier {
  public:
    virtual ~INotifier() = default;
    // One-way: returns without waiting for the client.
    virtual void sendNotify(IPCClass& value, ClientInfo& client) = 0;
    // Waits for the client's answer; a null object when there is none.
    virtual tv_sp<IPCClass> sendNotifyEx(IPCClass& value, ClientInfo& client) = 0;
};

}  // namespace tavrin

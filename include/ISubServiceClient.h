#pragma once

#include "ClientInfo.h"
#include "IPCClass.h"
#include "tv_sp.h"

namespace tavrin {

// A handle on a sub-service, through which its master (or a client) calls it.
// Results are the sub-service's answer, a null object when there is none.
class ISubServiceClient {
  public:
    virtual ~ISubServiceClient() = default;
    // An action from the master service.
    virtual tv_sp<IPCClass> ipcCall(IPCClass& action) = 0;
    // An action from the client `info`.
    virtual tv_sp<IPCClass> ipcCall(IPCClass& action, ClientInfo& info) = 0;
};

}  // namespace tavrin

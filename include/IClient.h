#pragma once

#include "IClientNotifier.h"
#include "IPCClass.h"
#include "tv_sp.h"

namespace tavrin {

// A client handle on a bound service, returned by Discoverer::bindTo.
class IClient {
  public:
    virtual ~IClient() = default;
    // `value` stays the caller's. Returns the service's answer, a null
    // object when there is none.
    virtual tv_sp<IPCClass> ipcCall(IPCClass& value) = 0;
    // Returns 0.
    virtual int setNotifier(tv_sp<IClientNotifier>& notifier) = 0;
};

}  // namespace tavrin

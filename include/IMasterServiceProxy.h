#pragma once

#include "IPCClass.h"
#include "tv_sp.h"

namespace tavrin {

// Handed to a sub-service so that it can call its master service.
class IMasterServiceProxy {
  public:
    virtual ~IMasterServiceProxy() = default;
    // The master's answer; a null object when there is none.
    virtual tv_sp<IPCClass> ipcCall(IPCClass& argument) = 0;
};

}  // namespace tavrin

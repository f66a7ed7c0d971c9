#pragma once

#include "ClientInfo.h"
#include "IMasterServiceProxy.h"
#include "INotifier.h"
#include "IPCClass.h"
#include "tv_sp.h"

namespace tavrin {

// A sub-service, implemented by the application, hosted in its own process
// and registered with its master service. Values passed by pointer are lent
// for the call only; results may hold no object.
class ISubService {
  public:
    virtual ~ISubService() = default;
    // The master's configuration, once, when it sends one; may be null.
    virtual void onConfig(IPCClass* config) = 0;
    // An action from the master service; never null.
    virtual tv_sp<IPCClass> onMasterAction(IPCClass* action) = 0;
    // An action from the client `client`; never null.
    virtual tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo& client) = 0;
    // Once, at start; valid for the life of the process.
    virtual void setMasterServiceProxy(IMasterServiceProxy* master) = 0;
    // Once, at start, before setMasterServiceProxy; valid for the life of the process.
    virtual void setNotifier(INotifier* notifier) = 0;
};

}  // namespace tavrin

#pragma once

#include <string>

#include "ClientInfo.h"
#include "INotifier.h"
#include "IPCClass.h"
#include "ISubServiceClient.h"
#include "Protocol.h"
#include "tv_sp.h"

namespace tavrin {

// A published service, implemented by the application. Called on binder
// threads, several at once: implementations must be thread-safe. Values
// passed by pointer belong to the library and are deleted when the call
// returns; results may hold no object.
class IService {
  public:
    virtual ~IService() = default;
    // A call from `client`.
    virtual tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo& client) = 0;
    // Once, while the service is being published; valid while it is.
    virtual void setNotifier(INotifier* notifier) = 0;
    // The notification channel of client process `pid` died.
    virtual void onClientDied(int pid) = 0;
    // Whether the sub-service `name` may register.
    virtual bool acceptSubService(std::string& name) = 0;
    // The registered sub-service `name` died.
    virtual void onSubServiceRemoved(std::string& name) = 0;
    // `subService` stays valid until onSubServiceRemoved(name) has returned.
    virtual void onSubServiceRegistered(std::string& name, ISubServiceClient* subService) = 0;
    // Reads the values the sub-service `name` sends; null refuses its
    // registration. Stays the service's own (the library copies it).
    virtual Protocol* getSubServiceProtocol(std::string& name) = 0;
    // The configuration handed to the sub-service `name` when it registers.
    virtual tv_sp<IPCClass> getSubServiceConfig(std::string& name) = 0;
    // A call from the sub-service `name`.
    virtual tv_sp<IPCClass> onSubServiceAction(IPCClass* action, std::string& name) = 0;
};

}  // namespace tavrin

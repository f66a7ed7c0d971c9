#pragma once

#include <binder/IBinder.h>

#include <atomic>
#include <string>

#include "ClientInfo.h"
#include "IPCClass.h"
#include "Protocol.h"
#include "coupler/binder/SharedAttempts.h"
#include "coupler/binder/clients/NotificationReceiver.h"
#include "coupler/binder/sub-service/SubServiceProxyManager.h"
#include "tv_sp.h"

namespace tavrin_binder {

class ClientsManager;

// A client process's one connection to one published service, shared by
// every client of that service (and of its sub-services) in the process: it
// holds the service's binder, registers a notification receiver with the
// service, watches the service for death, sends the clients' calls and
// obtains sub-services from the service as their master.
//
// Held through tv_sp by the ServiceProxyManager (until the service dies), by
// every ClientShadow made for it and briefly by binds. Calls come from any
// thread and run in parallel: no lock is held across a transaction, so a
// notification may call a client of this service while a thread of this
// process waits in a call to it. The receiver and the death recipient may
// outlive the proxy and then touch nothing of it.
class ServiceProxy final : public SubServiceProxyManager::Removeable {
  public:
    ServiceProxy(tavrin::tv_sp<ClientsManager>& clientsManager, const std::string& name,
                 tavrin::Protocol& protocol);
    ~ServiceProxy();
    ServiceProxy(const ServiceProxy&) = delete;
    ServiceProxy& operator=(const ServiceProxy&) = delete;

    // Finds the service, registers the receiver, watches for death.
    bool connect();
    // The service died: leaves the ServiceProxyManager and says goodbye.
    bool disconnect();
    // Obtains the sub-service from the master (waiting up to `timeout` ms
    // for it to register) unless it is held already; its session number, or
    // a negative value on failure.
    int connectTo(std::string& subServiceName, tavrin::Protocol& protocol, int timeout);
    tavrin::tv_sp<tavrin::IPCClass> callService(tavrin::IPCClass& value,
                                                tavrin::ClientInfo& client);
    // Refused when the sub-service's proxy changed since the client bound.
    tavrin::tv_sp<tavrin::IPCClass> callSubService(tavrin::IPCClass& value,
                                                   tavrin::ClientInfo& client,
                                                   std::string& subServiceName, int session);
    void onSubServiceRemoved(std::string name,
                             const tavrin::tv_sp<ISubServiceProxy>& proxy) override;

    tavrin::tv_sp<ClientsManager>& getClientsManager() { return clientsManager; }
    // The service's death has been noticed (possibly before the proxy was
    // registered).
    bool hasDied() const;

    class Notifier;
    class ServiceDeathRecipient;

  private:
    using SubServiceConnects = SharedAttempts<int>;

    // GET_SUB_SERVICE, then the sub-service's proxy: its session, or -1.
    int fetchSubService(std::string& subServiceName, tavrin::Protocol& protocol, int timeout);

    tavrin::tv_sp<ClientsManager> clientsManager;
    const std::string name;
    tavrin::Protocol protocol;              // read only
    SubServiceConnects subServiceConnects;  // keyed by sub-service name
    android::sp<android::IBinder> service;  // set by connect, before the proxy is shared
    android::sp<Notifier> notifier;
    const uint64_t identity;
    android::sp<ServiceDeathRecipient> deathRecipient;
    // Last, so that it goes first: its death link is cleared while the rest
    // of the proxy is whole.
    SubServiceProxyManager subServiceProxies;
};

// Receives the service's notifications for this proxy's clients.
class ServiceProxy::Notifier : public NotificationReceiver {
  public:
    Notifier(tavrin::tv_sp<ClientsManager>& clients, tavrin::Protocol& protocol);
};

// Disconnects its proxy when the service dies. It knows the proxy only by
// name and identity (see newProxyIdentity), and reaches it through the
// ServiceProxyManager, whose reference keeps the proxy alive until
// disconnect has returned.
class ServiceProxy::ServiceDeathRecipient : public android::IBinder::DeathRecipient {
  public:
    ServiceDeathRecipient(const std::string& name, uint64_t identity);
    void binderDied(const android::wp<android::IBinder>& who) override;
    bool hasDied() const { return mDied.load(); }

  private:
    const std::string mName;
    const uint64_t mIdentity;
    std::atomic<bool> mDied{false};
};

}  // namespace tavrin_binder

#pragma once

#include <binder/IBinder.h>

#include <map>
#include <string>
#include <vector>

#include "Protocol.h"
#include "coupler/binder/sub-service/ISubServiceProxy.h"
#include "coupler/binder/sub-service/SubServiceDeathLink.h"
#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

class ClientsManager;

// The SubServiceProxies of one owner by sub-service name: a client's
// ServiceProxy (the sub-services of its master that clients bound to) or a
// master's ServiceCarrier (the sub-services registered with it). Drops a
// proxy when its sub-service dies and tells the owner.
//
// A member of its owner, which outlives it. Any thread; death notices come
// on binder threads, several at once. mLock guards the map only: proxies are
// built, and released, outside it, and the owner is told without it.
class SubServiceProxyManager : private ISubServiceProxy::DeathRecipient {
  public:
    // Implemented by the owners.
    class Removeable {
      public:
        // The sub-service `name` died: `proxy` has left the manager, and the
        // reference passed here is the last one the manager keeps.
        virtual void onSubServiceRemoved(std::string name,
                                         const tavrin::tv_sp<ISubServiceProxy>& proxy) = 0;

      protected:
        ~Removeable() = default;
    };

    explicit SubServiceProxyManager(Removeable* owner);
    // Detaches every proxy (deaths and notifications no longer reach this
    // manager or its clients) and drops them; the owner is not told.
    ~SubServiceProxyManager();
    SubServiceProxyManager(const SubServiceProxyManager&) = delete;
    SubServiceProxyManager& operator=(const SubServiceProxyManager&) = delete;

    // A notifier-form proxy (client side) or a plain-form one (master
    // side), stored and returned; a handle holding no object when `name` is
    // held by a live sub-service or the new one is dead already. A holder
    // known to be dead is dropped (its owner told) and replaced at once.
    tavrin::tv_sp<ISubServiceProxy> create(std::string& name, tavrin::Protocol& protocol,
                                           tavrin::tv_sp<ClientsManager>& clients,
                                           android::sp<android::IBinder> binder);
    tavrin::tv_sp<ISubServiceProxy> create(std::string& name, tavrin::Protocol& protocol,
                                           android::sp<android::IBinder> binder);
    // The stored proxy, or a handle holding no object.
    tavrin::tv_sp<ISubServiceProxy> get(const std::string& name);
    // The names stored, in order.
    std::vector<std::string> names();

  private:
    void onSubServiceDied(std::string name, uint64_t identity) override;
    // When the proxy of `identity` is the one stored under `name`: drops it
    // and tells the owner.
    void destory(const std::string& name, uint64_t identity);
    tavrin::tv_sp<ISubServiceProxy> admit(const std::string& name,
                                          const tavrin::tv_sp<ISubServiceProxy>& proxy);
    tavrin::tv_sp<ISubServiceProxy> find(const std::string& name);
    // Removes the proxy of `identity` if it is stored under `name`, and
    // hands it over.
    tavrin::tv_sp<ISubServiceProxy> take(const std::string& name, uint64_t identity);

    Removeable* const mOwner;
    android::sp<SubServiceDeathLink> mDeathLink;  // shared with the proxies' death recipients
    tavrin::Mutex mLock;                          // guards mProxies
    std::map<std::string, tavrin::tv_sp<ISubServiceProxy>> mProxies;
};

}  // namespace tavrin_binder

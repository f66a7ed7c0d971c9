#pragma once

#include <binder/IBinder.h>

#include <atomic>
#include <string>

#include "Protocol.h"
#include "coupler/binder/clients/NotificationReceiver.h"
#include "coupler/binder/sub-service/ISubServiceProxy.h"
#include "coupler/binder/sub-service/SubServiceDeathLink.h"
#include "tv_sp.h"

namespace tavrin_binder {

class ClientsManager;

// One process's handle on one sub-service's binder object (its
// SubServiceCarrier), in one of two forms:
// - notifier form, in a client process: registers a notification receiver
//   with the sub-service so that its notifications reach the ClientsManager
//   of the client's ServiceProxy; client calls go straight to the
//   sub-service (IPC_CALL);
// - plain form, in the master's process: the record of a registered
//   sub-service, through which the master's IService calls it
//   (MASTER_IPC_CALL) and whose binder and Protocol its carrier uses.
// Either form watches the sub-service's binder and reports its death through
// the SubServiceDeathLink of the SubServiceProxyManager that made it.
//
// Made only by SubServiceProxyManager::create and held through tv_sp by that
// manager (and briefly by callers). Calls come from any thread and run in
// parallel: no lock is held across a transaction.
class SubServiceProxy : public ISubServiceProxy {
  public:
    // Notifier form: sends ADD_NOTIFIER; the proxy is unusable (session -1,
    // no death watch) when the sub-service refuses it.
    SubServiceProxy(std::string& name, android::sp<android::IBinder>& remote,
                    tavrin::Protocol& protocol, tavrin::tv_sp<ClientsManager>& clients,
                    android::sp<SubServiceDeathLink>& deathLink);
    // Plain form: usable at once.
    SubServiceProxy(std::string& name, android::sp<android::IBinder>& remote,
                    tavrin::Protocol& protocol, android::sp<SubServiceDeathLink>& deathLink);
    ~SubServiceProxy() override;

    // MASTER_IPC_CALL: an action from the master.
    tavrin::tv_sp<tavrin::IPCClass> ipcCall(tavrin::IPCClass& action) override;
    // IPC_CALL: an action from the client `info`.
    tavrin::tv_sp<tavrin::IPCClass> ipcCall(tavrin::IPCClass& action,
                                            tavrin::ClientInfo& info) override;
    android::sp<android::IBinder> getBinder() override;
    int getSession() override;
    tavrin::Protocol& getProtocol() override;
    void detach() override;
    bool hasDied() override;
    uint64_t getIdentity() override;

    class Notifier;
    class SubServiceDeathRecipient;

  private:
    SubServiceProxy(std::string& name, android::sp<android::IBinder>& remote,
                    tavrin::Protocol& protocol, const tavrin::tv_sp<ClientsManager>& clients,
                    android::sp<SubServiceDeathLink>& deathLink, bool withNotifier);
    bool registerNotifier();
    void watchAndNumber();
    tavrin::tv_sp<tavrin::IPCClass> call(uint32_t code, android::Parcel& request);

    const std::string name;
    const android::sp<android::IBinder> remote;
    tavrin::Protocol protocol;       // read only
    android::sp<Notifier> notifier;  // notifier form only
    const uint64_t identity;
    android::sp<SubServiceDeathRecipient> deathRecipient;
    int session = -1;  // set during construction, read only afterwards
};

// Receives the sub-service's notifications for the clients of one
// ClientsManager.
class SubServiceProxy::Notifier : public NotificationReceiver {
  public:
    Notifier(const tavrin::tv_sp<ClientsManager>& clients, tavrin::Protocol& protocol);
};

// Reports the sub-service's death through the link; never touches the proxy,
// which may be gone by then, and names it by its identity.
class SubServiceProxy::SubServiceDeathRecipient : public android::IBinder::DeathRecipient {
  public:
    SubServiceDeathRecipient(const std::string& name, android::sp<SubServiceDeathLink>& link,
                             uint64_t identity);
    void binderDied(const android::wp<android::IBinder>& who) override;
    void markDied() { mDied.store(true); }
    bool hasDied() const { return mDied.load(); }

  private:
    const std::string mName;
    const android::sp<SubServiceDeathLink> mLink;
    const uint64_t mIdentity;
    std::atomic<bool> mDied{false};
};

}  // namespace tavrin_binder

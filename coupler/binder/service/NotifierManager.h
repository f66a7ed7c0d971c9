#pragma once

#include <binder/IBinder.h>

#include <map>
#include <vector>

#include "INotifier.h"
#include "IService.h"
#include "Protocol.h"
#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

// The INotifier handed to a service or a sub-service: one notifier per
// client process (the first that process registered), which sends that
// process the notifications addressed to its clients and watches it for
// death, telling the service (if any) when it dies.
//
// A member of a ServiceCarrier or of the SubServiceCarrier, which live as
// long as the process. Any thread: mLock guards the map only, and no lock is
// held during a transaction or while the service is told of a death.
class NotifierManager : public tavrin::INotifier {
  public:
    NotifierManager();
    ~NotifierManager() override;
    NotifierManager(const NotifierManager&) = delete;
    NotifierManager& operator=(const NotifierManager&) = delete;

    // Files `clientBinder` for process `pid` unless the process has one;
    // `protocol` reads the answers to sendNotifyEx; `service`, which may
    // hold none, is told of the process's death.
    void addNotifier(int pid, android::sp<android::IBinder>& clientBinder,
                     tavrin::Protocol& protocol, tavrin::tv_sp<tavrin::IService> service);
    void removeNotifier(int pid);
    // The processes that have a notifier filed, in ascending order.
    std::vector<int> clientPids();

    void sendNotify(tavrin::IPCClass& value, tavrin::ClientInfo& client) override;
    tavrin::tv_sp<tavrin::IPCClass> sendNotifyEx(tavrin::IPCClass& value,
                                                 tavrin::ClientInfo& client) override;

    // A client process's notifier: a death recipient that notifies.
    class INotifier : public android::IBinder::DeathRecipient, public tavrin::INotifier {};
    class Notifier;

  private:
    // The notifier of `pid`, or null (logged).
    android::sp<INotifier> find(int pid);
    // Removes `notifier` if it is the one filed under `pid`.
    bool erase(int pid, const INotifier* notifier);

    tavrin::Mutex mLock;  // guards mNotifiers
    std::map<int, android::sp<INotifier>> mNotifiers;
};

class NotifierManager::Notifier : public NotifierManager::INotifier {
  public:
    Notifier(NotifierManager* manager, int pid, android::sp<android::IBinder>& clientBinder,
             tavrin::Protocol& protocol, tavrin::tv_sp<tavrin::IService> service);

    void sendNotify(tavrin::IPCClass& value, tavrin::ClientInfo& client) override;
    tavrin::tv_sp<tavrin::IPCClass> sendNotifyEx(tavrin::IPCClass& value,
                                                 tavrin::ClientInfo& client) override;
    void binderDied(const android::wp<android::IBinder>& who) override;

    // Stops watching the client.
    void unwatch();

  private:
    void write(tavrin::IPCClass& value, tavrin::ClientInfo& client, int32_t wantReply,
               android::Parcel& request);

    NotifierManager* const mManager;
    const int mPid;
    const android::sp<android::IBinder> mClientBinder;
    const tavrin::tv_sp<tavrin::IService> mService;
    tavrin::Protocol mProtocol;  // read only
};

}  // namespace tavrin_binder

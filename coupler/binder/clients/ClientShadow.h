#pragma once

#include <stdint.h>

#include <string>

#include "ClientInfo.h"
#include "IClient.h"
#include "IClientNotifier.h"
#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

class ServiceProxy;

// The state behind one client handle: its proxy, its ClientInfo, what it is
// a client of, and the user's notifier. Calls go through it to the proxy;
// notifications addressed to its ClientInfo come to it from the manager and
// go on to the user's notifier.
//
// Owned by its ClientsManager's map (and, during a delivery, by the
// delivering thread); it shares its ServiceProxy. ipcCall and setNotifier
// run on user threads, onNotify/onNotifyEx on binder threads.
class ClientShadow : public tavrin::IClient, public tavrin::IClientNotifier {
  public:
    enum ClientType : int32_t { SERVICE_CLIENT = 0, SUB_SERVICE_CLIENT = 1 };

    // A client of the service itself.
    ClientShadow(tavrin::tv_sp<ServiceProxy>& proxy, tavrin::ClientInfo& client);
    // A client of the sub-service `subServiceName`, bound under `session`.
    ClientShadow(tavrin::tv_sp<ServiceProxy>& proxy, tavrin::ClientInfo& client,
                 std::string& subServiceName, int session);
    ~ClientShadow() override;

    tavrin::tv_sp<tavrin::IPCClass> ipcCall(tavrin::IPCClass& value) override;
    int setNotifier(tavrin::tv_sp<tavrin::IClientNotifier>& notifier) override;

    void onNotify(tavrin::IPCClass& value) override;
    tavrin::tv_sp<tavrin::IPCClass> onNotifyEx(tavrin::IPCClass& value) override;

    const tavrin::ClientInfo& getClientInfo() const { return client; }

  private:
    // The user's notifier as it is now; logs when there is none.
    tavrin::tv_sp<tavrin::IClientNotifier> currentNotifier(tavrin::IPCClass& value);

    tavrin::tv_sp<ServiceProxy> proxy;
    tavrin::ClientInfo client;
    std::string subServiceName;  // empty for a service client
    const int32_t session;       // -1 for a service client
    const ClientType clientType;

    tavrin::Mutex notifierLock;  // guards notifier: it is replaced while notifications arrive
    tavrin::tv_sp<tavrin::IClientNotifier> notifier;
};

}  // namespace tavrin_binder

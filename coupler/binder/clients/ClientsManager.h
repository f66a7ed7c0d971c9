#pragma once

#include <stdint.h>

#include <map>
#include <string>

#include "ClientInfo.h"
#include "IClient.h"
#include "IPCClass.h"
#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

class ClientShadow;
class ServiceProxy;

// The clients made through one ServiceProxy (of its service, or of
// sub-services reached through it), by ClientInfo: hands out their objIDs,
// routes each notification to the client it addresses, and forgets a client
// when the user drops its handle.
//
// Shared through tv_sp by the proxy, by every Client_Binder made through it
// and by the proxy's notification receivers; the last share destroys it.
// create/destory run on user threads, onNotify/onNotifyEx on binder threads.
// mLock guards the map only: clients are called and released outside it.
class ClientsManager {
  public:
    ClientsManager();
    ~ClientsManager();
    ClientsManager(const ClientsManager&) = delete;
    ClientsManager& operator=(const ClientsManager&) = delete;

    // A service client; the manager owns the returned shadow.
    tavrin::IClient* create(tavrin::tv_sp<ServiceProxy>& proxy, int tag);
    // A client of the sub-service `subServiceName`, bound under `session`.
    tavrin::IClient* create(tavrin::tv_sp<ServiceProxy>& proxy, std::string& subServiceName,
                            int session, int tag);
    // Forgets `client`, a shadow made here; it dies once no delivery holds it.
    void destory(tavrin::IClient* client);

    void onNotify(tavrin::ClientInfo& client, tavrin::IPCClass& value);
    // The client's answer; a null object when it gave none or is unknown.
    tavrin::tv_sp<tavrin::IPCClass> onNotifyEx(tavrin::ClientInfo& client, tavrin::IPCClass& value);

  private:
    tavrin::ClientInfo nextClientInfo(int tag);
    tavrin::IClient* insert(ClientShadow* shadow);
    // The client addressed by `client`, or null (logged).
    tavrin::tv_sp<ClientShadow> find(const tavrin::ClientInfo& client);

    tavrin::Mutex mLock;  // guards everything below
    std::map<tavrin::ClientInfo, tavrin::tv_sp<ClientShadow>> mClients;
    int32_t mLastObjID = 0;
};

}  // namespace tavrin_binder

#pragma once

#include "IClient.h"
#include "tv_sp.h"

namespace tavrin_binder {

class ClientsManager;

// The handle a bind returns to the user, inside a tv_sp of IClient. Forwards
// to its ClientShadow; when the user drops it, its manager forgets the
// client. Owned by the user's tv_sp; shares the ClientsManager, which keeps
// the shadow alive as long as the handle. Any user thread.
class Client_Binder : public tavrin::IClient {
  public:
    Client_Binder(tavrin::tv_sp<ClientsManager>& manager, tavrin::IClient* shadow);
    ~Client_Binder() override;
    Client_Binder(const Client_Binder&) = delete;
    Client_Binder& operator=(const Client_Binder&) = delete;

    tavrin::tv_sp<tavrin::IPCClass> ipcCall(tavrin::IPCClass& value) override;
    int setNotifier(tavrin::tv_sp<tavrin::IClientNotifier>& notifier) override;

  private:
    tavrin::IClient* const shadow;  // owned by manager
    tavrin::tv_sp<ClientsManager> manager;
};

}  // namespace tavrin_binder

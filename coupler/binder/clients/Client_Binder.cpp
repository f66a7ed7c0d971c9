#include "coupler/binder/clients/Client_Binder.h"

#include "Log/AutoTrace.h"
#include "coupler/binder/clients/ClientsManager.h"

namespace tavrin_binder {

Client_Binder::Client_Binder(tavrin::tv_sp<ClientsManager>& manager, tavrin::IClient* shadow)
    : shadow(shadow), manager(manager) {
    AutoTrace trace("[Tavrin]", "Client_Binder", "Client_Binder", false);
}

Client_Binder::~Client_Binder() {
    AutoTrace trace("[Tavrin]", "Client_Binder", "~Client_Binder", false);
    manager->destory(shadow);
}

tavrin::tv_sp<tavrin::IPCClass> Client_Binder::ipcCall(tavrin::IPCClass& value) {
    return shadow->ipcCall(value);
}

int Client_Binder::setNotifier(tavrin::tv_sp<tavrin::IClientNotifier>& notifier) {
    AutoTrace trace("[Tavrin]", "Client_Binder", "setNotifier", false);
    return shadow->setNotifier(notifier);
}

}  // namespace tavrin_binder

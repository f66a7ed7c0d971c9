#include "coupler/binder/clients/ClientShadow.h"

#include <android/log.h>

#include "Log/AutoTrace.h"
#include "coupler/binder/clients/ServiceProxy.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][ClientShadow]";

}  // namespace

ClientShadow::ClientShadow(tavrin::tv_sp<ServiceProxy>& proxy, tavrin::ClientInfo& client)
    : proxy(proxy), client(client), session(-1), clientType(SERVICE_CLIENT) {
    AutoTrace trace("[Tavrin]", "ClientShadow", "ClientShadow", false);
}

ClientShadow::ClientShadow(tavrin::tv_sp<ServiceProxy>& proxy, tavrin::ClientInfo& client,
                           std::string& subServiceName, int session)
    : proxy(proxy),
      client(client),
      subServiceName(subServiceName),
      session(session),
      clientType(SUB_SERVICE_CLIENT) {
    AutoTrace trace("[Tavrin]", "ClientShadow", "ClientShadow", false);
}

ClientShadow::~ClientShadow() = default;

tavrin::tv_sp<tavrin::IPCClass> ClientShadow::ipcCall(tavrin::IPCClass& value) {
    switch (clientType) {
        case SERVICE_CLIENT:
            return proxy->callService(value, client);
        case SUB_SERVICE_CLIENT:
            return proxy->callSubService(value, client, subServiceName, session);
    }
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "client type invaild!!!");
    return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
}

int ClientShadow::setNotifier(tavrin::tv_sp<tavrin::IClientNotifier>& replacement) {
    AutoTrace trace("[Tavrin]", "ClientShadow", "setNotifier", false);
    tavrin::tv_sp<tavrin::IClientNotifier> previous = replacement;
    {
        tavrin::AutoLock hold(notifierLock);
        std::swap(notifier, previous);
    }
    return 0;  // the previous notifier is released here, outside the lock
}

void ClientShadow::onNotify(tavrin::IPCClass& value) {
    AutoTrace trace("[Tavrin]", "ClientShadow", "onNotify", false);
    tavrin::tv_sp<tavrin::IClientNotifier> sink = currentNotifier(value);
    if (sink) sink->onNotify(value);
}

tavrin::tv_sp<tavrin::IPCClass> ClientShadow::onNotifyEx(tavrin::IPCClass& value) {
    AutoTrace trace("[Tavrin]", "ClientShadow", "onNotifyEx", false);
    tavrin::tv_sp<tavrin::IClientNotifier> sink = currentNotifier(value);
    if (!sink) return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    return sink->onNotifyEx(value);
}

tavrin::tv_sp<tavrin::IClientNotifier> ClientShadow::currentNotifier(tavrin::IPCClass& value) {
    tavrin::tv_sp<tavrin::IClientNotifier> sink;
    {
        tavrin::AutoLock hold(notifierLock);
        sink = notifier;
    }
    if (!sink) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "notify was not processed!!!:notifier not set,notify[%s]",
                            value.getClassName().c_str());
    }
    return sink;
}

}  // namespace tavrin_binder

#include "coupler/binder/sub-service/SubServiceProxy.h"

#include <android/log.h>
#include <binder/Parcel.h>

#include <atomic>

#include "Log/AutoTrace.h"
#include "coupler/binder/ProxyIdentity.h"
#include "coupler/binder/ResultFlag.h"
#include "coupler/binder/clients/ClientsManager.h"
#include "coupler/binder/sub-service/SubServiceCarrierCode.h"
#include "protocol/UniversalSerialization.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][SubServiceProxy]";

// Sessions are unique within the process, whichever side and form made them.
std::atomic<int> gLastSession{0};

}  // namespace

SubServiceProxy::SubServiceProxy(std::string& name, android::sp<android::IBinder>& remote,
                                 tavrin::Protocol& protocol, tavrin::tv_sp<ClientsManager>& clients,
                                 android::sp<SubServiceDeathLink>& deathLink)
    : SubServiceProxy(name, remote, protocol, clients, deathLink, true) {}

SubServiceProxy::SubServiceProxy(std::string& name, android::sp<android::IBinder>& remote,
                                 tavrin::Protocol& protocol,
                                 android::sp<SubServiceDeathLink>& deathLink)
    : SubServiceProxy(name, remote, protocol, tavrin::tv_sp<ClientsManager>(), deathLink, false) {}

SubServiceProxy::SubServiceProxy(std::string& name, android::sp<android::IBinder>& remote,
                                 tavrin::Protocol& protocol,
                                 const tavrin::tv_sp<ClientsManager>& clients,
                                 android::sp<SubServiceDeathLink>& deathLink, bool withNotifier)
    : name(name),
      remote(remote),
      protocol(protocol),
      notifier(withNotifier ? new Notifier(clients, protocol) : nullptr),
      identity(newProxyIdentity()),
      deathRecipient(new SubServiceDeathRecipient(name, deathLink, identity)) {
    AutoTrace trace("[Tavrin]", "SubServiceProxy", "SubServiceProxy", false);
    if (!withNotifier || registerNotifier()) watchAndNumber();
}

SubServiceProxy::~SubServiceProxy() {
    { AutoTrace trace("[Tavrin]", "SubServiceProxy", "~SubServiceProxy", false); }
    // The sub-service may still hold the notifier: it must reach nobody now.
    detach();
}

bool SubServiceProxy::registerNotifier() {
    android::Parcel request;
    android::Parcel reply;
    request.writeStrongBinder(notifier);
    remote->transact(SubServiceCarrierCode::ADD_NOTIFIER, request, &reply, 0);
    if (reply.readInt32() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "sub service set notifier fail [%s]",
                            name.c_str());
        return false;
    }
    return true;
}

void SubServiceProxy::watchAndNumber() {
    // A sub-service dead already would never be reported: say so now.
    if (remote->linkToDeath(deathRecipient, nullptr, 0) == android::DEAD_OBJECT) {
        deathRecipient->markDied();
    }
    session = gLastSession.fetch_add(1, std::memory_order_relaxed) + 1;
}

tavrin::tv_sp<tavrin::IPCClass> SubServiceProxy::ipcCall(tavrin::IPCClass& action) {
    android::Parcel request;
    UniversalSerialization::writeValue(action, request);
    return call(SubServiceCarrierCode::MASTER_IPC_CALL, request);
}

tavrin::tv_sp<tavrin::IPCClass> SubServiceProxy::ipcCall(tavrin::IPCClass& action,
                                                         tavrin::ClientInfo& info) {
    android::Parcel request;
    UniversalSerialization::writeRecord(info, request);
    UniversalSerialization::writeValue(action, request);
    return call(SubServiceCarrierCode::IPC_CALL, request);
}

tavrin::tv_sp<tavrin::IPCClass> SubServiceProxy::call(uint32_t code, android::Parcel& request) {
    android::Parcel reply;
    remote->transact(code, request, &reply, 0);
    return readResult(protocol, reply);
}

android::sp<android::IBinder> SubServiceProxy::getBinder() {
    return remote;
}

int SubServiceProxy::getSession() {
    return session;
}

tavrin::Protocol& SubServiceProxy::getProtocol() {
    return protocol;
}

void SubServiceProxy::detach() {
    if (notifier != nullptr) notifier->detach();
}

bool SubServiceProxy::hasDied() {
    return deathRecipient->hasDied() || !remote->isBinderAlive();
}

uint64_t SubServiceProxy::getIdentity() {
    return identity;
}

SubServiceProxy::Notifier::Notifier(const tavrin::tv_sp<ClientsManager>& clients,
                                    tavrin::Protocol& protocol)
    : NotificationReceiver(kLogTag, clients, protocol) {}

SubServiceProxy::SubServiceDeathRecipient::SubServiceDeathRecipient(
    const std::string& name, android::sp<SubServiceDeathLink>& link, uint64_t identity)
    : mName(name), mLink(link), mIdentity(identity) {}

void SubServiceProxy::SubServiceDeathRecipient::binderDied(
    const android::wp<android::IBinder>& /*who*/) {
    AutoTrace trace("[Tavrin]", "SubServiceProxy", "binderDied", false);
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "sub service died,name[%s]", mName.c_str());
    mDied.store(true);
    mLink->subServiceDied(mName, mIdentity);
}

}  // namespace tavrin_binder

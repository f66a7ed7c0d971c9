#include "coupler/binder/clients/ServiceProxy.h"

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>

#include <algorithm>
#include <chrono>

#include "Log/AutoTrace.h"
#include "coupler/binder/ProxyIdentity.h"
#include "coupler/binder/ResultFlag.h"
#include "coupler/binder/clients/ClientsManager.h"
#include "coupler/binder/clients/ServiceProxyManager.h"
#include "coupler/binder/service/ServiceCarrierCode.h"
#include "protocol/UniversalSerialization.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][ServiceProxy]";
// How much longer than its own time-out a bind may wait for the answer that
// another bind is getting: one answer's way back.
constexpr std::chrono::milliseconds kJoinedAnswerGrace{200};

}  // namespace

ServiceProxy::ServiceProxy(tavrin::tv_sp<ClientsManager>& clientsManager, const std::string& name,
                           tavrin::Protocol& protocol)
    : clientsManager(clientsManager),
      name(name),
      protocol(protocol),
      notifier(new Notifier(clientsManager, protocol)),
      identity(newProxyIdentity()),
      deathRecipient(new ServiceDeathRecipient(name, identity)),
      subServiceProxies(this) {}

ServiceProxy::~ServiceProxy() {
    notifier->detach();
}

bool ServiceProxy::connect() {
    AutoTrace trace("[Tavrin]", "ServiceProxy", "connect", false);
    service = android::defaultServiceManager()->getService(android::String16(name.c_str()));
    if (service == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "connect failed:ServiceManager have no service named [%s]",
                            name.c_str());
        return false;
    }
    android::Parcel request;
    android::Parcel reply;
    request.writeStrongBinder(notifier);
    service->transact(ServiceCarrierCode::ADD_NOTIFIER, request, &reply, 0);
    if (reply.readInt32() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "connect failed:set notifier failed,service name[%s]", name.c_str());
        return false;
    }
    // A service that died before the watch was set would never be noticed.
    if (service->linkToDeath(deathRecipient, nullptr, 0) == android::DEAD_OBJECT) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "connect failed:service died [%s]",
                            name.c_str());
        return false;
    }
    return true;
}

bool ServiceProxy::disconnect() {
    AutoTrace trace("[Tavrin]", "ServiceProxy", "disconnect", false);
    ServiceProxyManager::self().unregistered(name, this);
    android::Parcel request;
    android::Parcel reply;
    service->transact(ServiceCarrierCode::REMOVE_NOTIFIER, request, &reply, 0);
    if (reply.readInt32() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "shutdown failed,service name[%s]",
                            name.c_str());
        return false;
    }
    return true;
}

int ServiceProxy::connectTo(std::string& subServiceName, tavrin::Protocol& subProtocol,
                            int timeout) {
    AutoTrace trace("[Tavrin]", "ServiceProxy", "connectTo", false);
    using Clock = SubServiceConnects::Clock;
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(std::max(timeout, 0));
    // Binds that come while another asks the master for the sub-service wait
    // for its answer rather than asking again, but none waits much longer
    // than its own time-out. Two proxies of one sub-service in a process
    // would each register a notifier, and the sub-service keeps only the
    // first.
    int askFor = timeout;
    for (;;) {
        tavrin::tv_sp<ISubServiceProxy> held = subServiceProxies.get(subServiceName);
        if (held && !held->hasDied()) return held->getSession();
        int session = -1;
        const auto shared = subServiceConnects.share(
            subServiceName, until + kJoinedAnswerGrace,
            [&] { return fetchSubService(subServiceName, subProtocol, askFor); }, &session);
        if (shared != SubServiceConnects::Share::JOINED || session >= 0) return session;
        // The other bind gave up sooner than this one would.
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        if (left.count() < 0) return -1;
        askFor = static_cast<int>(left.count());
    }
}

int ServiceProxy::fetchSubService(std::string& subServiceName, tavrin::Protocol& subProtocol,
                                  int timeout) {
    android::Parcel request;
    android::Parcel reply;
    if (request.writeCString(subServiceName.c_str()) != 0) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "writeCString fail.");
    }
    request.writeInt32(timeout);
    service->transact(ServiceCarrierCode::GET_SUB_SERVICE, request, &reply, 0);
    // A reply without a binder is a refusal too: there is nothing to call.
    tavrin::tv_sp<ISubServiceProxy> created;
    android::sp<android::IBinder> binder;
    if (reply.readInt32() == 0 && (binder = reply.readStrongBinder()) != nullptr) {
        created = subServiceProxies.create(subServiceName, subProtocol, clientsManager, binder);
    }
    if (!created) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "connect sub service failed!!!! [%s]",
                            subServiceName.c_str());
        return -1;
    }
    return created->getSession();
}

tavrin::tv_sp<tavrin::IPCClass> ServiceProxy::callService(tavrin::IPCClass& value,
                                                          tavrin::ClientInfo& client) {
    android::Parcel request;
    android::Parcel reply;
    UniversalSerialization::writeRecord(client, request);
    UniversalSerialization::writeValue(value, request);
    service->transact(ServiceCarrierCode::IPC_CALL, request, &reply, 0);
    return readResult(protocol, reply);
}

tavrin::tv_sp<tavrin::IPCClass> ServiceProxy::callSubService(tavrin::IPCClass& value,
                                                             tavrin::ClientInfo& client,
                                                             std::string& subServiceName,
                                                             int session) {
    tavrin::tv_sp<ISubServiceProxy> subService = subServiceProxies.get(subServiceName);
    if (!subService) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "ipc call fail,sub service proxy is null!!!,sub service[%s]",
                            subServiceName.c_str());
        return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    }
    if (subService->getSession() != session) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "ipc call fail,session error!!!,sub service[%s]",
                            subServiceName.c_str());
        return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    }
    return subService->ipcCall(value, client);
}

void ServiceProxy::onSubServiceRemoved(std::string subServiceName,
                                       const tavrin::tv_sp<ISubServiceProxy>& /*proxy*/) {
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "sub service removed,service name[%s]",
                        subServiceName.c_str());
}

bool ServiceProxy::hasDied() const {
    return deathRecipient->hasDied();
}

ServiceProxy::Notifier::Notifier(tavrin::tv_sp<ClientsManager>& clients, tavrin::Protocol& protocol)
    : NotificationReceiver(kLogTag, clients, protocol) {}

ServiceProxy::ServiceDeathRecipient::ServiceDeathRecipient(const std::string& name,
                                                           uint64_t identity)
    : mName(name), mIdentity(identity) {}

void ServiceProxy::ServiceDeathRecipient::binderDied(const android::wp<android::IBinder>& /*who*/) {
    AutoTrace trace("[Tavrin]", "ServiceProxy", "binderDied", false);
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "service died [%s]", mName.c_str());
    mDied.store(true);
    // Not found: the proxy is not registered yet, and its bind removes it.
    tavrin::tv_sp<ServiceProxy> proxy = ServiceProxyManager::self().get(mName);
    if (proxy && proxy->identity == mIdentity) proxy->disconnect();
}

}  // namespace tavrin_binder

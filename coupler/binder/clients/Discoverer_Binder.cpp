#include "coupler/binder/clients/Discoverer_Binder.h"

#include <android/log.h>
#include <binder/ProcessState.h>

#include "Log/AutoTrace.h"
#include "coupler/binder/clients/Client_Binder.h"
#include "coupler/binder/clients/ClientsManager.h"
#include "coupler/binder/clients/ServiceProxy.h"
#include "coupler/binder/clients/ServiceProxyManager.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][Discoverer_Binder]";

tavrin::tv_sp<tavrin::IClient> handleOn(tavrin::tv_sp<ServiceProxy>& proxy,
                                        tavrin::IClient* shadow) {
    return tavrin::tv_sp<tavrin::IClient>(new Client_Binder(proxy->getClientsManager(), shadow));
}

}  // namespace

tavrin::tv_sp<tavrin::IClient> Discoverer_Binder::bindTo(tavrin::ServiceInfo& info,
                                                         tavrin::Protocol& protocol, int tag) {
    AutoTrace trace("[Tavrin]", "Discoverer_Binder", "bindTo", false);
    tavrin::tv_sp<ServiceProxy> proxy = proxyFor(info.serviceName, info.serviceName, protocol,
                                                 "create service proxy failed,connect faild[%s]");
    if (!proxy) return tavrin::tv_sp<tavrin::IClient>(nullptr);
    std::call_once(started, [this] { startProxy(); });
    return handleOn(proxy, proxy->getClientsManager()->create(proxy, tag));
}

tavrin::tv_sp<tavrin::IClient> Discoverer_Binder::bindTo(tavrin::SubServiceInfo& info,
                                                         tavrin::Protocol& protocol, int timeout,
                                                         int tag) {
    AutoTrace trace("[Tavrin]", "Discoverer_Binder", "bindTo", false);
    tavrin::tv_sp<ServiceProxy> proxy =
        proxyFor(info.serviceName, info.subServiceName, protocol,
                 "create service proxy failed,connect master service faild[%s]");
    if (!proxy) return tavrin::tv_sp<tavrin::IClient>(nullptr);
    std::call_once(started, [this] { startProxy(); });
    const int session = proxy->connectTo(info.subServiceName, protocol, timeout);
    if (session < 0) {
        __android_log_print(ANDROID_LOG_INFO, kLogTag,
                            "create service proxy failed,connect sub service faild[%s]",
                            info.subServiceName.c_str());
        return tavrin::tv_sp<tavrin::IClient>(nullptr);
    }
    return handleOn(proxy,
                    proxy->getClientsManager()->create(proxy, info.subServiceName, session, tag));
}

tavrin::tv_sp<ServiceProxy> Discoverer_Binder::proxyFor(const std::string& serviceName,
                                                        const std::string& loggedName,
                                                        tavrin::Protocol& protocol,
                                                        const char* failure) {
    tavrin::tv_sp<ServiceProxy> proxy = ServiceProxyManager::self().get(serviceName);
    if (proxy) return proxy;
    // Binds that come while another connects to the service take its
    // outcome: one proxy, one notifier, and one wait for a missing name.
    mConnects.share(
        serviceName, Connects::kNoDeadline,
        [&] { return connect(serviceName, loggedName, protocol); }, &proxy);
    if (!proxy) __android_log_print(ANDROID_LOG_INFO, kLogTag, failure, serviceName.c_str());
    return proxy;
}

tavrin::tv_sp<ServiceProxy> Discoverer_Binder::connect(const std::string& serviceName,
                                                       const std::string& loggedName,
                                                       tavrin::Protocol& protocol) {
    ServiceProxyManager& proxies = ServiceProxyManager::self();
    // Registered by an attempt that ended since this bind looked.
    tavrin::tv_sp<ServiceProxy> proxy = proxies.get(serviceName);
    if (proxy) return proxy;
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "create service proxy,service[%s]",
                        loggedName.c_str());
    tavrin::tv_sp<ClientsManager> clients(new ClientsManager());
    proxy = tavrin::tv_sp<ServiceProxy>(new ServiceProxy(clients, serviceName, protocol));
    if (!proxy->connect()) return tavrin::tv_sp<ServiceProxy>(nullptr);
    proxies.registered(serviceName, proxy);
    // A death noticed before the proxy was registered could not remove it.
    if (proxy->hasDied()) proxies.unregistered(serviceName, proxy.get());
    return proxy;
}

void Discoverer_Binder::startProxy() {
    AutoTrace trace("[Tavrin]", "Discoverer_Binder", "startProxy", false);
    android::ProcessState::self()->setProcessName("DiscvBd");
    android::ProcessState::self()->startThreadPool();
}

}  // namespace tavrin_binder

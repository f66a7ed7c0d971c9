#include "coupler/binder/clients/ServiceProxyManager.h"

#include "Log/AutoTrace.h"
#include "coupler/binder/clients/ServiceProxy.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {

ServiceProxyManager& ServiceProxyManager::self() {
    static ServiceProxyManager* const instance = new ServiceProxyManager();
    return *instance;
}

tavrin::tv_sp<ServiceProxy> ServiceProxyManager::get(const std::string& name) {
    AutoTrace trace("[Tavrin]", "ServiceProxyManager", "get", false);
    tavrin::AutoLock hold(lock);
    auto entry = proxies.find(name);
    if (entry == proxies.end()) return tavrin::tv_sp<ServiceProxy>(nullptr);
    return entry->second;
}

void ServiceProxyManager::registered(const std::string& name, tavrin::tv_sp<ServiceProxy>& proxy) {
    AutoTrace trace("[Tavrin]", "ServiceProxyManager", "registered", false);
    tavrin::AutoLock hold(lock);
    proxies.emplace(name, proxy);
}

void ServiceProxyManager::unregistered(const std::string& name, const ServiceProxy* proxy) {
    AutoTrace trace("[Tavrin]", "ServiceProxyManager", "unregistered", false);
    tavrin::tv_sp<ServiceProxy> removed;  // its release may destroy the proxy: after the lock
    tavrin::AutoLock hold(lock);
    auto entry = proxies.find(name);
    if (entry == proxies.end() || entry->second.get() != proxy) return;
    removed = entry->second;
    proxies.erase(entry);
}

}  // namespace tavrin_binder

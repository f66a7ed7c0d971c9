#include "coupler/binder/sub-service/SubServiceProxyManager.h"

#include <android/log.h>

#include "Log/AutoTrace.h"
#include "coupler/binder/clients/ClientsManager.h"
#include "coupler/binder/sub-service/SubServiceProxy.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][SubServiceProxyManager]";

}  // namespace

SubServiceProxyManager::SubServiceProxyManager(Removeable* owner)
    : mOwner(owner), mDeathLink(new SubServiceDeathLink(this)) {
    AutoTrace trace("[Tavrin]", "SubServiceProxyManager", "SubServiceProxyManager", false);
}

SubServiceProxyManager::~SubServiceProxyManager() {
    mDeathLink->clear();
    std::map<std::string, tavrin::tv_sp<ISubServiceProxy>> proxies;
    {
        tavrin::AutoLock hold(mLock);
        proxies.swap(mProxies);
    }
    for (auto& entry : proxies) entry.second->detach();
}

tavrin::tv_sp<ISubServiceProxy> SubServiceProxyManager::create(
    std::string& name, tavrin::Protocol& protocol, tavrin::tv_sp<ClientsManager>& clients,
    android::sp<android::IBinder> binder) {
    AutoTrace trace("[Tavrin]", "SubServiceProxyManager", "create", false);
    return admit(name, tavrin::tv_sp<ISubServiceProxy>(
                           new SubServiceProxy(name, binder, protocol, clients, mDeathLink)));
}

tavrin::tv_sp<ISubServiceProxy> SubServiceProxyManager::create(
    std::string& name, tavrin::Protocol& protocol, android::sp<android::IBinder> binder) {
    AutoTrace trace("[Tavrin]", "SubServiceProxyManager", "create", false);
    return admit(name, tavrin::tv_sp<ISubServiceProxy>(
                           new SubServiceProxy(name, binder, protocol, mDeathLink)));
}

tavrin::tv_sp<ISubServiceProxy> SubServiceProxyManager::admit(
    const std::string& name, const tavrin::tv_sp<ISubServiceProxy>& proxy) {
    if (proxy->hasDied()) return tavrin::tv_sp<ISubServiceProxy>();
    tavrin::tv_sp<ISubServiceProxy> deadHolder;
    {
        tavrin::AutoLock hold(mLock);
        tavrin::tv_sp<ISubServiceProxy>& slot = mProxies[name];
        if (slot && !slot->hasDied()) return tavrin::tv_sp<ISubServiceProxy>();
        // A restarted sub-service may register before the notice of its
        // predecessor's death has come: that notice will find nothing.
        deadHolder = slot;
        slot = proxy;
    }
    if (deadHolder) mOwner->onSubServiceRemoved(name, deadHolder);
    // A death noticed before the proxy was stored found nothing to drop.
    if (proxy->hasDied() && take(name, proxy->getIdentity())) {
        return tavrin::tv_sp<ISubServiceProxy>();
    }
    return proxy;
}

tavrin::tv_sp<ISubServiceProxy> SubServiceProxyManager::find(const std::string& name) {
    tavrin::AutoLock hold(mLock);
    auto entry = mProxies.find(name);
    return entry == mProxies.end() ? tavrin::tv_sp<ISubServiceProxy>() : entry->second;
}

tavrin::tv_sp<ISubServiceProxy> SubServiceProxyManager::get(const std::string& name) {
    tavrin::tv_sp<ISubServiceProxy> proxy = find(name);
    if (!proxy) {
        __android_log_print(ANDROID_LOG_DEBUG, kLogTag,
                            "get sub service proxy failed:no such sub service!!!");
    }
    return proxy;
}

std::vector<std::string> SubServiceProxyManager::names() {
    std::vector<std::string> names;
    tavrin::AutoLock hold(mLock);
    names.reserve(mProxies.size());
    for (const auto& entry : mProxies) names.push_back(entry.first);
    return names;
}

tavrin::tv_sp<ISubServiceProxy> SubServiceProxyManager::take(const std::string& name,
                                                             uint64_t identity) {
    tavrin::tv_sp<ISubServiceProxy> taken;
    tavrin::AutoLock hold(mLock);
    auto entry = mProxies.find(name);
    if (entry == mProxies.end() || entry->second->getIdentity() != identity) return taken;
    taken = entry->second;
    mProxies.erase(entry);
    return taken;
}

void SubServiceProxyManager::destory(const std::string& name, uint64_t identity) {
    AutoTrace trace("[Tavrin]", "SubServiceProxyManager", "destory", false);
    // Dropped from the map at once, so that a restarted sub-service may take
    // the name while the owner is told; the owner's reference keeps the
    // proxy until it has been told.
    tavrin::tv_sp<ISubServiceProxy> removed = take(name, identity);
    if (!removed) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "remove sub service proxy failed:proxy missing!!!");
        return;
    }
    mOwner->onSubServiceRemoved(name, removed);
}

void SubServiceProxyManager::onSubServiceDied(std::string name, uint64_t identity) {
    destory(name, identity);
}

}  // namespace tavrin_binder

#include "coupler/binder/sub-service/SubServiceProxyManager.h"

#include <android/log.h>

#include <chrono>
#include <thread>

#include "Log/AutoTrace.h"
#include "coupler/binder/clients/ClientsManager.h"
#include "coupler/binder/sub-service/SubServiceProxy.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][SubServiceProxyManager]";
// How long a registration waits for the death of the name's previous holder
// to be handled: a restarted sub-service may register right after it died.
constexpr std::chrono::seconds kDeadHolderWait{2};
constexpr std::chrono::milliseconds kDeadHolderPoll{5};

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
    const auto deadline = std::chrono::steady_clock::now() + kDeadHolderWait;
    while (!store(name, proxy)) {
        tavrin::tv_sp<ISubServiceProxy> holder = find(name);
        if ((holder && !holder->hasDied()) || std::chrono::steady_clock::now() >= deadline) {
            return tavrin::tv_sp<ISubServiceProxy>();
        }
        std::this_thread::sleep_for(kDeadHolderPoll);
    }
    // A death noticed before the proxy was stored found nothing to drop.
    if (proxy->hasDied() && forget(name, proxy.get())) return tavrin::tv_sp<ISubServiceProxy>();
    return proxy;
}

bool SubServiceProxyManager::store(const std::string& name,
                                   const tavrin::tv_sp<ISubServiceProxy>& proxy) {
    tavrin::AutoLock hold(mLock);
    return mProxies.emplace(name, proxy).second;
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

bool SubServiceProxyManager::forget(const std::string& name, const ISubServiceProxy* proxy) {
    tavrin::tv_sp<ISubServiceProxy> removed;  // released after the lock
    tavrin::AutoLock hold(mLock);
    auto entry = mProxies.find(name);
    if (entry == mProxies.end() || entry->second.get() != proxy) return false;
    removed = entry->second;
    mProxies.erase(entry);
    return true;
}

void SubServiceProxyManager::destory(const std::string& name, const ISubServiceProxy* proxy) {
    AutoTrace trace("[Tavrin]", "SubServiceProxyManager", "destory", false);
    tavrin::tv_sp<ISubServiceProxy> stored = find(name);
    if (stored.get() != proxy) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "remove sub service proxy failed:proxy missing!!!");
        return;
    }
    // The owner may still use the proxy while it is told; it goes afterwards.
    mOwner->onSubServiceRemoved(name);
    forget(name, proxy);
}

void SubServiceProxyManager::onSubServiceDied(std::string name, const ISubServiceProxy* proxy) {
    destory(name, proxy);
}

}  // namespace tavrin_binder

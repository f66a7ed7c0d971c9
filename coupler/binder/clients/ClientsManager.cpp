#include "coupler/binder/clients/ClientsManager.h"

#include <android/log.h>
#include <unistd.h>

#include "Log/AutoTrace.h"
#include "coupler/binder/clients/ClientShadow.h"
#include "utils/Assert.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][ClientsManager]";

}  // namespace

ClientsManager::ClientsManager() = default;

ClientsManager::~ClientsManager() = default;

tavrin::IClient* ClientsManager::create(tavrin::tv_sp<ServiceProxy>& proxy, int tag) {
    AutoTrace trace("[Tavrin]", "ClientsManager", "create", false);
    tavrin::ClientInfo client = nextClientInfo(tag);
    return insert(new ClientShadow(proxy, client));
}

tavrin::IClient* ClientsManager::create(tavrin::tv_sp<ServiceProxy>& proxy,
                                        std::string& subServiceName, int session, int tag) {
    AutoTrace trace("[Tavrin]", "ClientsManager", "create", false);
    tavrin::ClientInfo client = nextClientInfo(tag);
    return insert(new ClientShadow(proxy, client, subServiceName, session));
}

// The pid is read on every create rather than cached, so that a child made
// by fork() addresses its own notifier.
tavrin::ClientInfo ClientsManager::nextClientInfo(int tag) {
    tavrin::ClientInfo client;
    client.pid = getpid();
    client.tag = tag;
    tavrin::AutoLock hold(mLock);
    client.objID = ++mLastObjID;
    return client;
}

tavrin::IClient* ClientsManager::insert(ClientShadow* shadow) {
    tavrin::AutoLock hold(mLock);
    mClients.emplace(shadow->getClientInfo(), tavrin::tv_sp<ClientShadow>(shadow));
    return shadow;
}

void ClientsManager::destory(tavrin::IClient* client) {
    AutoTrace trace("[Tavrin]", "ClientsManager", "destory", false);
    tavrin::assertOrAbort(client != nullptr, "client!=NULL",
                          "coupler/binder/clients/ClientsManager", __LINE__, __PRETTY_FUNCTION__);
    const tavrin::ClientInfo key = static_cast<ClientShadow*>(client)->getClientInfo();
    tavrin::tv_sp<ClientShadow> forgotten;  // released after the lock: it may run user code
    {
        tavrin::AutoLock hold(mLock);
        auto entry = mClients.find(key);
        if (entry == mClients.end()) {
            __android_log_print(ANDROID_LOG_WARN, kLogTag, "destory client fail,client invaild");
            return;
        }
        forgotten = entry->second;
        mClients.erase(entry);
    }
}

void ClientsManager::onNotify(tavrin::ClientInfo& client, tavrin::IPCClass& value) {
    AutoTrace trace("[Tavrin]", "ClientsManager", "onNotify", false);
    tavrin::tv_sp<ClientShadow> shadow = find(client);
    if (shadow) shadow->onNotify(value);
}

tavrin::tv_sp<tavrin::IPCClass> ClientsManager::onNotifyEx(tavrin::ClientInfo& client,
                                                           tavrin::IPCClass& value) {
    AutoTrace trace("[Tavrin]", "ClientsManager", "onNotifyEx", false);
    tavrin::tv_sp<ClientShadow> shadow = find(client);
    if (!shadow) return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    return shadow->onNotifyEx(value);
}

tavrin::tv_sp<ClientShadow> ClientsManager::find(const tavrin::ClientInfo& client) {
    {
        tavrin::AutoLock hold(mLock);
        auto entry = mClients.find(client);
        if (entry != mClients.end()) return entry->second;
    }
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "send notify fail,notifier invaild,objID[%d]",
                        client.objID);
    return tavrin::tv_sp<ClientShadow>();
}

}  // namespace tavrin_binder

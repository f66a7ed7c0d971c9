#include "coupler/binder/service/NotifierManager.h"

#include <android/log.h>
#include <binder/Parcel.h>

#include "Log/AutoTrace.h"
#include "coupler/binder/ResultFlag.h"
#include "coupler/binder/monitor/MonitorHooks.h"
#include "coupler/binder/service/ServiceCarrierCode.h"
#include "protocol/UniversalSerialization.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][NotifierManager]";

}  // namespace

NotifierManager::NotifierManager() = default;

NotifierManager::~NotifierManager() = default;

void NotifierManager::addNotifier(int pid, android::sp<android::IBinder>& clientBinder,
                                  tavrin::Protocol& protocol,
                                  tavrin::tv_sp<tavrin::IService> service) {
    AutoTrace trace("[Tavrin]", "NotifierManager", "addNotifier", false);
    android::sp<Notifier> notifier = new Notifier(this, pid, clientBinder, protocol, service);
    {
        // The process keeps its first notifier.
        tavrin::AutoLock hold(mLock);
        if (!mNotifiers.emplace(pid, notifier).second) return;
    }
    // Filed before it is watched, so that no death notice finds it missing.
    // A client that died since it sent the request is dropped as if its
    // notice had come: its pid's next process must be able to register.
    if (clientBinder->linkToDeath(notifier, nullptr, 0) == android::DEAD_OBJECT) {
        notifier->binderDied(clientBinder);
    }
}

void NotifierManager::removeNotifier(int pid) {
    AutoTrace trace("[Tavrin]", "NotifierManager", "removeNotifier", false);
    android::sp<INotifier> removed;  // released after the lock
    {
        tavrin::AutoLock hold(mLock);
        auto entry = mNotifiers.find(pid);
        if (entry != mNotifiers.end()) {
            removed = entry->second;
            mNotifiers.erase(entry);
        }
    }
    if (removed == nullptr) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "notifier(pid:%d) is missing,double remove",
                            pid);
        return;
    }
    static_cast<Notifier*>(removed.get())->unwatch();
}

void NotifierManager::sendNotify(tavrin::IPCClass& value, tavrin::ClientInfo& client) {
    AutoTrace trace("[Tavrin]", "NotifierManager", "sendNotify", false);
    android::sp<INotifier> notifier = find(client.pid);
    if (notifier != nullptr) notifier->sendNotify(value, client);
}

tavrin::tv_sp<tavrin::IPCClass> NotifierManager::sendNotifyEx(tavrin::IPCClass& value,
                                                              tavrin::ClientInfo& client) {
    AutoTrace trace("[Tavrin]", "NotifierManager", "sendNotifyEx", false);
    android::sp<INotifier> notifier = find(client.pid);
    if (notifier == nullptr) return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    return notifier->sendNotifyEx(value, client);
}

std::vector<int> NotifierManager::clientPids() {
    std::vector<int> pids;
    tavrin::AutoLock hold(mLock);
    pids.reserve(mNotifiers.size());
    for (const auto& entry : mNotifiers) pids.push_back(entry.first);
    return pids;
}

android::sp<NotifierManager::INotifier> NotifierManager::find(int pid) {
    {
        tavrin::AutoLock hold(mLock);
        auto entry = mNotifiers.find(pid);
        if (entry != mNotifiers.end()) return entry->second;
    }
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "send notify fail:notifier missing!!!");
    return nullptr;
}

bool NotifierManager::erase(int pid, const INotifier* notifier) {
    android::sp<INotifier> removed;  // released after the lock
    tavrin::AutoLock hold(mLock);
    auto entry = mNotifiers.find(pid);
    if (entry == mNotifiers.end() || entry->second.get() != notifier) return false;
    removed = entry->second;
    mNotifiers.erase(entry);
    return true;
}

NotifierManager::Notifier::Notifier(NotifierManager* manager, int pid,
                                    android::sp<android::IBinder>& clientBinder,
                                    tavrin::Protocol& protocol,
                                    tavrin::tv_sp<tavrin::IService> service)
    : mManager(manager),
      mPid(pid),
      mClientBinder(clientBinder),
      mService(service),
      mProtocol(protocol) {
    AutoTrace trace("[Tavrin]", "NotifierManager", "Notifier", false);
}

void NotifierManager::Notifier::write(tavrin::IPCClass& value, tavrin::ClientInfo& client,
                                      int32_t wantReply, android::Parcel& request) {
    UniversalSerialization::writeRecord(client, request);
    request.writeInt32(wantReply);
    UniversalSerialization::writeValue(value, request);
}

void NotifierManager::Notifier::sendNotify(tavrin::IPCClass& value, tavrin::ClientInfo& client) {
    android::Parcel request;
    write(value, client, 0, request);
    MonitoredNotice monitored(mManager, CallKind::kNotify, mPid, value);
    monitored.finish(mClientBinder->transact(NotifierCode::NOTIFY, request, nullptr,
                                             android::IBinder::FLAG_ONEWAY),
                     request);
}

tavrin::tv_sp<tavrin::IPCClass> NotifierManager::Notifier::sendNotifyEx(
    tavrin::IPCClass& value, tavrin::ClientInfo& client) {
    android::Parcel request;
    android::Parcel reply;
    write(value, client, 1, request);
    MonitoredNotice monitored(mManager, CallKind::kNotifyWait, mPid, value);
    monitored.finish(mClientBinder->transact(NotifierCode::NOTIFY, request, &reply, 0), request);
    return readResult(mProtocol, reply);
}

void NotifierManager::Notifier::binderDied(const android::wp<android::IBinder>& /*who*/) {
    AutoTrace trace("[Tavrin]", "NotifierManager", "binderDied", false);
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "client died,pid[%d]", mPid);
    if (!mManager->erase(mPid, this)) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "remove notifier failed:notifier missing!!!");
        return;
    }
    // Told without the manager's lock, so that the service may notify from here.
    if (mService) mService->onClientDied(mPid);
}

void NotifierManager::Notifier::unwatch() {
    mClientBinder->unlinkToDeath(this, nullptr, 0);
}

}  // namespace tavrin_binder

#include "coupler/binder/service/ServiceCarrier.h"

#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <time.h>
#include <unistd.h>

#include "Log/AutoTrace.h"
#include "coupler/binder/CarrierRequests.h"
#include "coupler/binder/ResultFlag.h"
#include "coupler/binder/monitor/CarrierDump.h"
#include "coupler/binder/monitor/JsonText.h"
#include "coupler/binder/monitor/MonitorHooks.h"
#include "coupler/binder/service/ServiceCarrierCode.h"
#include "coupler/binder/service/WaiterQuota.h"
#include "protocol/UniversalSerialization.h"
#include "utils/Assert.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][ServiceCarrier]";
constexpr const char* kCheckFile = "coupler/binder/service/ServiceCarrier";
constexpr const char* kCheckFunction =
    "virtual status_t tavrin_binder::ServiceCarrier::onTransact(uint32_t, const android::Parcel&, "
    "android::Parcel*, uint32_t)";

int64_t monotonicMillis() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The sub-service name that starts a request; a request without one is
// logged as `missing` and gets an empty reply.
bool readName(const android::Parcel& data, std::string* name, const char* missing) {
    const char* text = data.readCString();
    if (text == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s", missing);
        return false;
    }
    name->assign(text);
    return true;
}

// The calling process, as the transport saw it.
int callingPid(int line) {
    android::IPCThreadState* ipc_thread_state = android::IPCThreadState::self();
    tavrin::assertOrAbort(ipc_thread_state != nullptr, "ipc_thread_state!=NULL", kCheckFile, line,
                          kCheckFunction);
    return ipc_thread_state->getCallingPid();
}

}  // namespace

ServiceCarrier::ServiceCarrier(tavrin::tv_sp<tavrin::IService>& service, tavrin::Protocol& protocol)
    : mSubServiceProxyManager(this),
      mProtocol(protocol),
      mSubServiceEvents(service),
      mService(service) {
    AutoTrace trace("[Tavrin]", "ServiceCarrier", "ServiceCarrier", false);
    mService->setNotifier(&mNotifierManager);
}

ServiceCarrier::~ServiceCarrier() = default;

android::status_t ServiceCarrier::onTransact(uint32_t code, const android::Parcel& data,
                                             android::Parcel* reply, uint32_t flags) {
    MonitoredCall monitored(this, MonitoredCall::Carrier::kService, code, data);
    return withReply(reply, [&](android::Parcel* answer) {
        return monitored.finish(dispatch(code, data, answer, flags), *answer);
    });
}

android::status_t ServiceCarrier::dispatch(uint32_t code, const android::Parcel& data,
                                           android::Parcel* reply, uint32_t flags) {
    switch (code) {
        case ServiceCarrierCode::ADD_NOTIFIER:
            addNotifier(data, reply, 34);
            return android::NO_ERROR;
        case ServiceCarrierCode::REMOVE_NOTIFIER:
            removeNotifier(43);
            reply->writeInt32(0);
            return android::NO_ERROR;
        case ServiceCarrierCode::IPC_CALL:
            ipcCall(data, reply);
            return android::NO_ERROR;
        case ServiceCarrierCode::GET_SUB_SERVICE:
            getSubService(data, reply);
            return android::NO_ERROR;
        case ServiceCarrierCode::SUB_SERVICE_IPC_CALL:
            subServiceIpcCall(data, reply);
            return android::NO_ERROR;
        case ServiceCarrierCode::REGISTER_SUB_SERVICE:
            registerSubService(data, reply);
            return android::NO_ERROR;
        default:
            return android::BBinder::onTransact(code, data, reply, flags);
    }
}

void ServiceCarrier::addNotifier(const android::Parcel& data, android::Parcel* reply, int line) {
    fileNotifier(mNotifierManager, callingPid(line), data, reply, mProtocol, mService, kLogTag);
}

void ServiceCarrier::removeNotifier(int line) {
    mNotifierManager.removeNotifier(callingPid(line));
}

void ServiceCarrier::ipcCall(const android::Parcel& data, android::Parcel* reply) {
    tavrin::ClientInfo client;
    UniversalSerialization::readRecord(client, data);
    answerAction(mProtocol, data, reply, kLogTag, "action was not processed!!!:action invaild",
                 [&](tavrin::IPCClass* action) { return mService->onAction(action, client); });
}

void ServiceCarrier::getSubService(const android::Parcel& data, android::Parcel* reply) {
    std::string name;
    if (!readName(data, &name, "get sub service failed,arg sub service name is null")) return;
    tavrin::tv_sp<ISubServiceProxy> record = mSubServiceProxyManager.get(name);
    if (!record) record = awaitSubService(name, data);
    if (!record) {
        reply->writeInt32(-1);
        return;
    }
    reply->writeInt32(0);
    reply->writeStrongBinder(record->getBinder());
}

// Waits up to the request's time-out for `name` to register. Every
// registration wakes every waiter; one that still misses its name waits
// again for the time left.
tavrin::tv_sp<ISubServiceProxy> ServiceCarrier::awaitSubService(const std::string& name,
                                                                const android::Parcel& data) {
    const int64_t start = monotonicMillis();
    const int32_t timeout = data.readInt32();
    tavrin::tv_sp<ISubServiceProxy> record;
    if (timeout < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "get sub service failed!:timeout invalid");
        return record;
    }
    // Each waiter holds a binder thread: they are counted for the whole
    // process and per caller.
    const pid_t caller = android::IPCThreadState::self()->getCallingPid();
    if (timeout > 0 && !WaiterQuota::self().admit(caller)) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "get sub service failed!:too many waiters,sub service[%s]",
                            name.c_str());
        return record;
    }
    int64_t elapsed = 0;
    do {
        tavrin::Semaphore registered;
        addWaiter(&registered);
        // Looked up again once listed: a registration that landed since the
        // first look-up posted nobody.
        record = mSubServiceProxyManager.get(name);
        if (!record && registered.timedWait(static_cast<int>(timeout - elapsed))) {
            record = mSubServiceProxyManager.get(name);
        }
        removeWaiter(&registered);
        elapsed = monotonicMillis() - start;
    } while (!record && elapsed < timeout);
    if (timeout > 0) WaiterQuota::self().release(caller);
    return record;
}

void ServiceCarrier::subServiceIpcCall(const android::Parcel& data, android::Parcel* reply) {
    std::string name;
    if (!readName(data, &name, "sub service action failed,sub service name is null")) return;
    tavrin::tv_sp<ISubServiceProxy> record = mSubServiceProxyManager.get(name);
    if (!record) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "sub service action was not processed!!!:no such subservice[%s]",
                            name.c_str());
        reply->writeInt32(0);
        return;
    }
    const bool answered = answerAction(
        record->getProtocol(), data, reply, kLogTag,
        "sub service action was not processed!!!:action invaild",
        [&](tavrin::IPCClass* action) { return mService->onSubServiceAction(action, name); });
    if (!answered) reply->writeInt32(0);  // unlike a client's call: "no result"
}

void ServiceCarrier::registerSubService(const android::Parcel& data, android::Parcel* reply) {
    std::string name;
    if (!readName(data, &name, "regitster sub servcie failed:sub service name is null")) return;
    if (!mService->acceptSubService(name)) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "regitster sub servcie failed:master service deny!");
        reply->writeInt32(-1);
        return;
    }
    android::sp<android::IBinder> binder = data.readStrongBinder();
    if (binder == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "regitster sub servcie failed:sub service binder is null");
        reply->writeInt32(-1);
        return;
    }
    tavrin::Protocol* supplied = mService->getSubServiceProtocol(name);
    if (supplied == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "regitster sub servcie failed:protocol is null!");
        return;
    }
    tavrin::Protocol protocol(*supplied);
    tavrin::tv_sp<ISubServiceProxy> record = mSubServiceProxyManager.create(name, protocol, binder);
    if (!record) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "regitster sub servcie failed:[%s] is registered already or died",
                            name.c_str());
        reply->writeInt32(-1);
        return;
    }
    tavrin::tv_sp<tavrin::IPCClass> config = mService->getSubServiceConfig(name);
    mSubServiceEvents.registered(name, record);
    reply->writeInt32(0);
    if (config) {
        __android_log_print(ANDROID_LOG_INFO, kLogTag, "regitster sub servcie success:[%s]",
                            name.c_str());
    } else {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "regitster sub servcie:have no config");
    }
    writeResult(config, *reply);
    wakeWaiters();
}

android::status_t ServiceCarrier::dump(int fd, const android::Vector<android::String16>& args) {
    return CarrierDump::answer(fd, args, {this, &mNotifierManager}, [this] { return status(); });
}

std::string ServiceCarrier::status() {
    std::string text = "{\"kind\":\"service\",\"pid\":" + std::to_string(getpid());
    text += ",\"clients\":" + jsonPidObjects(mNotifierManager.clientPids());
    text += ",\"subServices\":[";
    const char* separator = "";
    for (const std::string& name : mSubServiceProxyManager.names()) {
        text += separator + std::string("{\"name\":") + jsonQuoted(name) + "}";
        separator = ",";
    }
    size_t waiting;
    {
        tavrin::AutoLock hold(mWaitersLock);
        waiting = mWaiters.size();
    }
    return text + "],\"waiting\":" + std::to_string(waiting) + "}";
}

void ServiceCarrier::onSubServiceRemoved(std::string name,
                                         const tavrin::tv_sp<ISubServiceProxy>& record) {
    mSubServiceEvents.removed(name, record);
}

void ServiceCarrier::addWaiter(tavrin::Semaphore* waiter) {
    tavrin::AutoLock hold(mWaitersLock);
    mWaiters.push_back(waiter);
}

void ServiceCarrier::removeWaiter(tavrin::Semaphore* waiter) {
    tavrin::AutoLock hold(mWaitersLock);
    mWaiters.remove(waiter);
}

void ServiceCarrier::wakeWaiters() {
    tavrin::AutoLock hold(mWaitersLock);
    for (tavrin::Semaphore* waiter : mWaiters) waiter->post();
}

}  // namespace tavrin_binder

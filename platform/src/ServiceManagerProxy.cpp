#define LOG_TAG "ServiceManager"

#include "ServiceManagerProxy.h"

#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>

#include "Peer.h"
#include "Runtime.h"
#include "ServiceManagerWaiter.h"

namespace android {
namespace {

constexpr const char* kTimeoutVariable = "TAVRIN_GETSERVICE_TIMEOUT_MS";

std::chrono::milliseconds timeoutFromEnvironment() {
    const char* text = getenv(kTimeoutVariable);
    if (text == nullptr || text[0] == '\0') return IServiceManager::kDefaultGetServiceTimeout;
    char* end = nullptr;
    const long long value = strtoll(text, &end, 10);
    if (*end != '\0' || value < 0) {
        ALOGW("ignoring %s=%s: not a number of milliseconds", kTimeoutVariable, text);
        return IServiceManager::kDefaultGetServiceTimeout;
    }
    return std::chrono::milliseconds(value);
}

std::atomic<int64_t>& processTimeoutMs() {
    static std::atomic<int64_t> timeout{timeoutFromEnvironment().count()};
    return timeout;
}

Parcel& withName(Parcel& request, const String16& name) {
    request.writeInterfaceToken(IServiceManager::descriptor);
    request.writeString16(name);
    return request;
}

}  // namespace

BpServiceManager::BpServiceManager(const sp<IBinder>& remote)
    : BpInterface<IServiceManager>(remote) {}

status_t BpServiceManager::call(uint32_t code, const Parcel& request, Parcel* reply) const {
    if (remote() == nullptr) return DEAD_OBJECT;
    const status_t sent = remote()->transact(code, request, reply);
    if (sent != NO_ERROR) return sent;
    int32_t status = NO_ERROR;
    return reply->readInt32(&status) == NO_ERROR ? status : BAD_VALUE;
}

sp<IBinder> BpServiceManager::checkService(const String16& name) const {
    Parcel request, reply;
    const status_t status = call(CHECK_SERVICE_TRANSACTION, withName(request, name), &reply);
    return status == NO_ERROR ? reply.readStrongBinder() : nullptr;
}

sp<IBinder> BpServiceManager::getService(const String16& name) const {
    const std::chrono::milliseconds timeout = getServiceTimeout();
    if (timeout.count() == 0) return checkService(name);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    sp<tvbinder::ServiceManagerWaiter> waiter = new tvbinder::ServiceManagerWaiter(name);
    sp<IBinder> service;
    const status_t registered = registerWaiter(name, waiter, &service);
    if (registered != NO_ERROR) {
        ALOGW("cannot wait for %s: %d", String8(name).string(), registered);
        return checkService(name);
    }
    if (service != nullptr) return service;
    // The notice arrives as an incoming call, which only pool threads take.
    ProcessState::self()->startThreadPool();
    service = waiter->waitUntil(deadline);
    if (service != nullptr) return service;
    // A registration racing with the deadline has already taken the waiter
    // out, so the daemon no longer knows it: look once more.
    if (cancelWaiter(name, waiter) == NAME_NOT_FOUND) service = checkService(name);
    if (service == nullptr) {
        ALOGW("service %s did not appear within %lld ms", String8(name).string(),
              static_cast<long long>(timeout.count()));
    }
    return service;
}

status_t BpServiceManager::registerWaiter(const String16& name, const sp<IBinder>& waiter,
                                          sp<IBinder>* present) const {
    Parcel request, reply;
    withName(request, name).writeStrongBinder(waiter);
    const status_t status = call(WAIT_FOR_SERVICE_TRANSACTION, request, &reply);
    if (status == NO_ERROR) *present = reply.readStrongBinder();
    return status;
}

status_t BpServiceManager::cancelWaiter(const String16& name, const sp<IBinder>& waiter) const {
    Parcel request, reply;
    withName(request, name).writeStrongBinder(waiter);
    return call(CANCEL_WAIT_TRANSACTION, request, &reply);
}

status_t BpServiceManager::addService(const String16& name, const sp<IBinder>& service,
                                      bool allowIsolated) {
    if (service == nullptr) return BAD_VALUE;
    Parcel request, reply;
    withName(request, name).writeStrongBinder(service);
    request.writeInt32(allowIsolated ? 1 : 0);
    return call(ADD_SERVICE_TRANSACTION, request, &reply);
}

Vector<String16> BpServiceManager::listServices() {
    Vector<String16> names;
    for (const Registration& registration : listRegistrations()) names.add(registration.name);
    return names;
}

std::vector<IServiceManager::Registration> BpServiceManager::listRegistrations() {
    Parcel request, reply;
    request.writeInterfaceToken(IServiceManager::descriptor);
    std::vector<Registration> registrations;
    int32_t count = 0;
    if (call(LIST_SERVICES_TRANSACTION, request, &reply) != NO_ERROR ||
        reply.readInt32(&count) != NO_ERROR || count < 0) {
        return registrations;
    }
    // Each entry takes at least 12 bytes: never trust the count for memory.
    registrations.reserve(std::min<size_t>(static_cast<size_t>(count), reply.dataAvail() / 12));
    for (int32_t i = 0; i < count; ++i) {
        Registration registration;
        int32_t pid = 0;
        if (reply.readString16(&registration.name) != NO_ERROR ||
            reply.readInt32(&pid) != NO_ERROR) {
            break;
        }
        registration.pid = pid;
        registration.processName = reply.readString8();
        registrations.push_back(std::move(registration));
    }
    // Each entry's uid and executable follow the entries; an older daemon sends none.
    for (Registration& registration : registrations) {
        int32_t uid = 0;
        if (reply.readInt32(&uid) != NO_ERROR) break;
        registration.uid = static_cast<uid_t>(uid);
        registration.executable = reply.readString8();
    }
    return registrations;
}

void BpServiceManager::setGetServiceTimeout(std::chrono::milliseconds timeout) {
    processTimeoutMs().store(std::max<int64_t>(0, timeout.count()));
}

std::chrono::milliseconds BpServiceManager::getServiceTimeout() const {
    return std::chrono::milliseconds(processTimeoutMs().load());
}

bool BpServiceManager::isAlive() const {
    if (remote() == nullptr || !remote()->isBinderAlive()) return false;
    // A child made by fork() has its own endpoint: its parent's proxy is stale.
    BpBinder* proxy = remote()->remoteBinder();
    return proxy == nullptr || proxy->owner()->runtime().isCurrent();
}

}  // namespace android

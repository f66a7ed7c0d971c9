#define LOG_TAG "ServiceManager"

#include "servicemanager/ServiceManagerProxy.h"

#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <errno.h>
#include <log/log.h>
#include <poll.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>

#include "peers/Peer.h"
#include "runtime/Runtime.h"
#include "servicemanager/ProcessRegistrations.h"
#include "servicemanager/ServiceManagerWaiter.h"

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

// A service manager that is being killed hangs up its sockets a moment
// before its process has exited: how long a failed ping waits for that.
constexpr int kDyingGraceMs = 1000;

// True once the service manager's process has exited, waiting up to `waitMs`
// for it; the death is then known to the transport too, which without pool
// threads would not read the pidfd itself.
bool hasExited(const sp<tvbinder::Peer>& manager, int waitMs) {
    tvbinder::ScopedFd pidfd(manager->dupPidfd());
    pollfd exit{pidfd.get(), POLLIN, 0};
    int ready;
    do {
        ready = pidfd.valid() ? poll(&exit, 1, waitMs) : 0;
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return false;
    manager->lost();
    return true;
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
    sp<const BpServiceManager> manager = this;
    for (;;) {
        bool lost = false;
        sp<IBinder> service = manager->waitOn(name, deadline, &lost);
        if (service != nullptr) return service;
        if (!lost) break;
        sp<const BpServiceManager> next = manager->successor();
        // It still answers but would not keep the wait: one look is all there is.
        if (next == nullptr) return manager->checkService(name);
        manager = next;
    }
    // The waiter's socket is closed: the service manager may drop it now. A
    // registration racing with the deadline is found by the look after.
    manager->cancelWaiters(name);
    sp<IBinder> service = manager->checkService(name);
    if (service == nullptr) {
        ALOGW("service %s did not appear within %lld ms", String8(name).string(),
              static_cast<long long>(timeout.count()));
    }
    return service;
}

sp<IBinder> BpServiceManager::waitOn(const String16& name,
                                     std::chrono::steady_clock::time_point deadline,
                                     bool* lost) const {
    for (;;) {
        tvbinder::ServiceManagerWaiter waiter;
        sp<IBinder> service;
        const status_t registered = registerWaiter(name, waiter, &service);
        if (registered != NO_ERROR) {
            ALOGW("cannot wait for %s: %d", String8(name).string(), registered);
            *lost = true;
            return nullptr;
        }
        if (service != nullptr) return service;
        switch (waiter.waitUntil(deadline)) {
            case tvbinder::ServiceManagerWaiter::Outcome::kTimedOut:
                return nullptr;
            case tvbinder::ServiceManagerWaiter::Outcome::kHungUp:
                *lost = true;
                return nullptr;
            case tvbinder::ServiceManagerWaiter::Outcome::kRegistered:
                break;
        }
        // Unless it went again before this look: then wait on.
        service = checkService(name);
        if (service != nullptr) return service;
    }
}

sp<const BpServiceManager> BpServiceManager::successor() const {
    // A ping tells a service manager that died from one that dropped the
    // wait, even before a pool thread (if there is one) has seen the death.
    if (remote() != nullptr) {
        if (remote()->pingBinder() == NO_ERROR) return nullptr;
        BpBinder* proxy = remote()->remoteBinder();
        if (proxy != nullptr) hasExited(proxy->owner(), kDyingGraceMs);
    }
    sp<BpServiceManager> next = tvbinder::connectedServiceManager();
    if (next->remote() == nullptr || next->remote() == remote()) return nullptr;
    return next;
}

status_t BpServiceManager::registerWaiter(const String16& name,
                                          tvbinder::ServiceManagerWaiter& waiter,
                                          sp<IBinder>* present) const {
    if (!waiter.valid()) return NO_MEMORY;
    Parcel request, reply;
    withName(request, name).writeFileDescriptor(waiter.serviceManagerEnd());
    const status_t status = call(WAIT_FOR_SERVICE_TRANSACTION, request, &reply);
    waiter.sent();
    if (status == NO_ERROR) *present = reply.readStrongBinder();
    return status;
}

void BpServiceManager::cancelWaiters(const String16& name) const {
    Parcel request, reply;
    // Best effort: this waiter gave up either way.
    (void)call(CANCEL_WAIT_TRANSACTION, withName(request, name), &reply);
}

status_t BpServiceManager::addService(const String16& name, const sp<IBinder>& service,
                                      bool allowIsolated) {
    if (service == nullptr) return BAD_VALUE;
    return tvbinder::ProcessRegistrations::self().add(*this, name, service, allowIsolated);
}

status_t BpServiceManager::requestAddService(const String16& name, const sp<IBinder>& service,
                                             bool allowIsolated) const {
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
    if (proxy == nullptr) return true;
    const sp<tvbinder::Peer>& owner = proxy->owner();
    if (!owner->ofThisProcess()) return false;
    // Without pool threads nobody reads its pidfd: a death shows only here.
    return tvbinder::Runtime::current()->pool().started() || !hasExited(owner, 0);
}

}  // namespace android

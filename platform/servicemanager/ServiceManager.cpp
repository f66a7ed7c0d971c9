#define LOG_TAG "servicemanager"

#include "ServiceManager.h"

#include <binder/IPCThreadState.h>
#include <fcntl.h>
#include <log/log.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace android {
namespace {

bool isValidName(const String16& name) {
    if (name.size() == 0 || name.size() > IServiceManager::kMaxNameLength) return false;
    const char16_t* chars = name.string();
    return std::all_of(chars, chars + name.size(),
                       [](char16_t c) { return c >= 0x20 && c <= 0x7e; });
}

// Reads the interface token and a valid name.
bool readHeaderAndName(const Parcel& data, String16* name) {
    return data.enforceInterface(IServiceManager::descriptor) &&
           data.readString16(name) == NO_ERROR && isValidName(*name);
}

// True when the request ends here and carried exactly `objects` embedded objects.
bool endsWith(const Parcel& data, size_t objects) {
    return data.dataAvail() == 0 && data.objectsCount() == objects;
}

// A registrable object: a live object of another process.
bool isRemote(const sp<IBinder>& binder) {
    return binder != nullptr && binder->remoteBinder() != nullptr;
}

// Reads a request made of a name and a waiter's call-back object, and nothing else.
bool readNameAndCallback(const Parcel& data, String16* name, sp<IBinder>* callback) {
    if (!readHeaderAndName(data, name)) return false;
    *callback = data.readStrongBinder();
    return isRemote(*callback) && endsWith(data, 1);
}

String8 processNameOf(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/comm";
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return String8("?");
    char buffer[64];
    ssize_t length = read(fd, buffer, sizeof buffer);
    close(fd);
    if (length <= 0) return String8("?");
    while (length > 0 && (buffer[length - 1] == '\n' || buffer[length - 1] == '\0')) --length;
    return String8(buffer, static_cast<size_t>(length));
}

pid_t callingPid() {
    return IPCThreadState::self()->getCallingPid();
}

}  // namespace

ServiceManager::ServiceManager() {
    Service self;
    self.binder = this;
    self.owner = getpid();
    mServices.emplace(String16(kSelfName), std::move(self));
}

const String16& ServiceManager::getInterfaceDescriptor() const {
    return IServiceManager::descriptor;
}

status_t ServiceManager::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                    uint32_t flags) {
    if (code < IServiceManager::CHECK_SERVICE_TRANSACTION ||
        code > IServiceManager::CANCEL_WAIT_TRANSACTION) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    // Every request is answered; a one-way request has nowhere to answer.
    if (reply == nullptr || (flags & FLAG_ONEWAY) != 0) return BAD_VALUE;
    switch (code) {
        case IServiceManager::CHECK_SERVICE_TRANSACTION:
            return checkService(data, reply);
        case IServiceManager::ADD_SERVICE_TRANSACTION:
            return addService(data, reply);
        case IServiceManager::LIST_SERVICES_TRANSACTION:
            return listServices(data, reply);
        case IServiceManager::WAIT_FOR_SERVICE_TRANSACTION:
            return waitForService(data, reply);
        default:
            return cancelWait(data, reply);
    }
}

status_t ServiceManager::checkService(const Parcel& data, Parcel* reply) {
    String16 name;
    if (!readHeaderAndName(data, &name) || !endsWith(data, 0)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    sp<IBinder> binder = findService(name);
    reply->writeInt32(binder != nullptr ? NO_ERROR : NAME_NOT_FOUND);
    reply->writeStrongBinder(binder);
    return NO_ERROR;
}

status_t ServiceManager::addService(const Parcel& data, Parcel* reply) {
    String16 name;
    int32_t allowIsolated = 0;
    if (!readHeaderAndName(data, &name)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    sp<IBinder> binder = data.readStrongBinder();
    if (!isRemote(binder) || data.readInt32(&allowIsolated) != NO_ERROR ||
        (allowIsolated != 0 && allowIsolated != 1) || !endsWith(data, 1)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    // Accepted for the platform's sake: there are no isolated processes here.
    reply->writeInt32(registerService(name, binder, callingPid()));
    return NO_ERROR;
}

status_t ServiceManager::listServices(const Parcel& data, Parcel* reply) {
    if (!data.enforceInterface(IServiceManager::descriptor) || !endsWith(data, 0)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    std::vector<std::pair<String16, pid_t>> entries;
    {
        std::lock_guard<std::mutex> lock(mLock);
        entries.reserve(mServices.size());
        for (const auto& [name, service] : mServices) entries.emplace_back(name, service.owner);
    }
    reply->writeInt32(NO_ERROR);
    reply->writeInt32(static_cast<int32_t>(entries.size()));
    for (const auto& [name, pid] : entries) {
        reply->writeString16(name);
        reply->writeInt32(pid);
        reply->writeString8(processNameOf(pid));
    }
    return NO_ERROR;
}

status_t ServiceManager::waitForService(const Parcel& data, Parcel* reply) {
    String16 name;
    sp<IBinder> callback;
    if (!readNameAndCallback(data, &name, &callback)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    sp<IBinder> present;
    const status_t status = addWaiter(name, callback, callingPid(), &present);
    reply->writeInt32(status);
    reply->writeStrongBinder(present);
    return NO_ERROR;
}

status_t ServiceManager::cancelWait(const Parcel& data, Parcel* reply) {
    String16 name;
    sp<IBinder> callback;
    if (!readNameAndCallback(data, &name, &callback)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    const pid_t caller = callingPid();
    std::vector<Waiter> cancelled;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto waiter = std::find_if(mWaiters.begin(), mWaiters.end(), [&](const Waiter& w) {
            return w.callback == callback && w.owner == caller && w.name == name;
        });
        if (waiter != mWaiters.end()) {
            cancelled.push_back(std::move(*waiter));
            mWaiters.erase(waiter);
        }
    }
    for (const Waiter& waiter : cancelled) waiter.callback->unlinkToDeath(this);
    reply->writeInt32(cancelled.empty() ? NAME_NOT_FOUND : NO_ERROR);
    return NO_ERROR;
}

status_t ServiceManager::registerService(const String16& name, const sp<IBinder>& binder,
                                         pid_t caller) {
    const status_t watched = watch(binder);
    if (watched != NO_ERROR) return watched;
    sp<IBinder> replaced;
    std::vector<Waiter> waiters;
    status_t status;
    {
        std::lock_guard<std::mutex> lock(mLock);
        status = admitServiceLocked(name, caller);
        // A death between linking and here found no entry to drop.
        if (status == NO_ERROR && !binder->isBinderAlive()) status = DEAD_OBJECT;
        if (status == NO_ERROR) {
            Service& entry = mServices[name];
            replaced = std::move(entry.binder);
            entry = Service{binder, caller};
            waiters = takeWaitersLocked(name);
        }
    }
    if (status != NO_ERROR) {
        binder->unlinkToDeath(this);
        return status;
    }
    if (replaced != nullptr) replaced->unlinkToDeath(this);
    ALOGI("added %s for pid %d", String8(name).string(), caller);
    notifyWaiters(waiters, binder);
    return NO_ERROR;
}

status_t ServiceManager::admitServiceLocked(const String16& name, pid_t caller) const {
    auto existing = mServices.find(name);
    if (existing != mServices.end()) {
        const Service& holder = existing->second;
        if (holder.owner == caller || !holder.binder->isBinderAlive()) return NO_ERROR;
        ALOGW("refused %s to pid %d: held by pid %d", String8(name).string(), caller, holder.owner);
        return ALREADY_EXISTS;
    }
    if (mServices.size() < kMaxServices && countServicesLocked(caller) < kMaxServicesPerProcess) {
        return NO_ERROR;
    }
    ALOGW("refused %s to pid %d: registry full", String8(name).string(), caller);
    return NO_MEMORY;
}

status_t ServiceManager::addWaiter(const String16& name, const sp<IBinder>& callback, pid_t caller,
                                   sp<IBinder>* present) {
    *present = findService(name);
    if (*present != nullptr) return NO_ERROR;
    const status_t watched = watch(callback);
    if (watched != NO_ERROR) return watched;
    status_t status = NO_ERROR;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto found = mServices.find(name);
        if (found != mServices.end()) {
            *present = found->second.binder;  // registered meanwhile
        } else if (mWaiters.size() >= kMaxWaiters ||
                   countWaitersLocked(caller) >= kMaxWaitersPerProcess) {
            ALOGW("refused a waiter for %s to pid %d: too many waiters", String8(name).string(),
                  caller);
            status = NO_MEMORY;
        } else if (!callback->isBinderAlive()) {
            status = DEAD_OBJECT;
        } else {
            mWaiters.push_back(Waiter{name, callback, caller});
            return NO_ERROR;
        }
    }
    callback->unlinkToDeath(this);
    return status;
}

sp<IBinder> ServiceManager::findService(const String16& name) const {
    std::lock_guard<std::mutex> lock(mLock);
    auto found = mServices.find(name);
    return found != mServices.end() ? found->second.binder : nullptr;
}

// Linking may have to reach the object's process, so it is never done under
// the registry's lock.
status_t ServiceManager::watch(const sp<IBinder>& binder) {
    const status_t linked = binder->linkToDeath(this);
    if (linked == NO_ERROR || linked == DEAD_OBJECT) return linked;
    return BAD_VALUE;
}

std::vector<ServiceManager::Waiter> ServiceManager::takeWaitersLocked(const String16& name) {
    std::vector<Waiter> taken;
    auto waiting = std::stable_partition(mWaiters.begin(), mWaiters.end(),
                                         [&](const Waiter& w) { return !(w.name == name); });
    std::move(waiting, mWaiters.end(), std::back_inserter(taken));
    mWaiters.erase(waiting, mWaiters.end());
    return taken;
}

void ServiceManager::notifyWaiters(const std::vector<Waiter>& waiters, const sp<IBinder>& binder) {
    for (const Waiter& waiter : waiters) {
        Parcel notice;
        notice.writeString16(waiter.name);
        notice.writeStrongBinder(binder);
        const status_t status = waiter.callback->transact(
            IServiceManager::SERVICE_REGISTERED_TRANSACTION, notice, nullptr, FLAG_ONEWAY);
        if (status != NO_ERROR) {
            ALOGW("could not tell pid %d that %s was added: %d", waiter.owner,
                  String8(waiter.name).string(), status);
        }
        waiter.callback->unlinkToDeath(this);
    }
}

void ServiceManager::binderDied(const wp<IBinder>& who) {
    const IBinder* dead = who.unsafe_get();
    // Dropped outside the lock: releasing a proxy talks to the transport.
    std::vector<sp<IBinder>> released;
    pid_t owner = 0;
    {
        std::lock_guard<std::mutex> lock(mLock);
        for (auto entry = mServices.begin(); entry != mServices.end();) {
            if (entry->second.binder.get() == dead) {
                owner = entry->second.owner;
                released.push_back(std::move(entry->second.binder));
                entry = mServices.erase(entry);
            } else {
                ++entry;
            }
        }
        auto gone = std::stable_partition(mWaiters.begin(), mWaiters.end(), [&](const Waiter& w) {
            return w.callback.get() != dead;
        });
        for (auto waiter = gone; waiter != mWaiters.end(); ++waiter) {
            released.push_back(std::move(waiter->callback));
        }
        mWaiters.erase(gone, mWaiters.end());
    }
    if (owner != 0) ALOGI("pid %d died: dropped its registrations", owner);
}

size_t ServiceManager::countServicesLocked(pid_t owner) const {
    return static_cast<size_t>(
        std::count_if(mServices.begin(), mServices.end(),
                      [&](const auto& e) { return e.second.owner == owner; }));
}

size_t ServiceManager::countWaitersLocked(pid_t owner) const {
    return static_cast<size_t>(std::count_if(mWaiters.begin(), mWaiters.end(),
                                             [&](const Waiter& w) { return w.owner == owner; }));
}

}  // namespace android

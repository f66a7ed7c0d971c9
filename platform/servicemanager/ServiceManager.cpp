#define LOG_TAG "servicemanager"

#include "ServiceManager.h"

#include <binder/IPCThreadState.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>

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

// The kind of socket a waiting call hands over: it is only ever written to
// without waiting, and its peer's close shows as a hang-up.
bool isWakeSocket(int fd) {
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof domain;
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0) return false;
    size = sizeof type;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && domain == AF_UNIX &&
           type == SOCK_SEQPACKET;
}

// Reads a request made of a name and a waiter's socket, and nothing else.
// The socket stays the request's.
bool readNameAndSocket(const Parcel& data, String16* name, int* socket) {
    if (!readHeaderAndName(data, name)) return false;
    *socket = data.readFileDescriptor();
    return *socket >= 0 && endsWith(data, 1) && isWakeSocket(*socket);
}

// The path of the process's executable, "?" when it cannot be read.
String8 executableOf(pid_t pid) {
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    char path[4096];
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof path) return String8("?");
    return String8(path, static_cast<size_t>(length));
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

// A pidfd is readable once its process exited.
bool hasExited(int pidfd) {
    struct pollfd exit = {pidfd, POLLIN, 0};
    return poll(&exit, 1, 0) > 0;
}

}  // namespace

ServiceManager::Caller::Caller() {
    const IPCThreadState* thread = IPCThreadState::self();
    pid = thread->getCallingPid();
    uid = thread->getCallingUid();
    pidfd = thread->dupCallingPidFd();
}

ServiceManager::Caller::~Caller() {
    if (pidfd >= 0) close(pidfd);
}

ServiceManager::WakeSocket::~WakeSocket() {
    if (mFd >= 0) close(mFd);
}

ServiceManager::WakeSocket::WakeSocket(WakeSocket&& other) noexcept
    : mFd(std::exchange(other.mFd, -1)) {}

ServiceManager::WakeSocket& ServiceManager::WakeSocket::operator=(WakeSocket&& other) noexcept {
    if (this != &other) {
        if (mFd >= 0) close(mFd);
        mFd = std::exchange(other.mFd, -1);
    }
    return *this;
}

bool ServiceManager::WakeSocket::wake() const {
    const char registered = 1;
    return send(mFd, &registered, 1, MSG_DONTWAIT | MSG_NOSIGNAL) == 1;
}

bool ServiceManager::WakeSocket::hungUp() const {
    struct pollfd peer = {mFd, 0, 0};
    return poll(&peer, 1, 0) > 0 && (peer.revents & (POLLHUP | POLLERR)) != 0;
}

ServiceManager::ServiceManager() : mExits([this](uint64_t key) { registrantExited(key); }) {
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
    Caller caller;
    reply->writeInt32(registerService(name, binder, caller));
    return NO_ERROR;
}

status_t ServiceManager::listServices(const Parcel& data, Parcel* reply) {
    if (!data.enforceInterface(IServiceManager::descriptor) || !endsWith(data, 0)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    struct Entry {
        String16 name;
        pid_t pid;
        uid_t uid;
    };
    std::vector<Entry> entries;
    {
        std::lock_guard<std::mutex> lock(mLock);
        entries.reserve(mServices.size());
        for (const auto& [name, service] : mServices) {
            auto registrant = mRegistrants.find(service.registrant);
            const uid_t uid = registrant != mRegistrants.end() ? registrant->second.uid : getuid();
            entries.push_back(Entry{name, service.owner, uid});
        }
    }
    // The entries (name, pid, process name), then each entry's uid and
    // executable in the same order: readers that know only the first part
    // stop before the second.
    reply->writeInt32(NO_ERROR);
    reply->writeInt32(static_cast<int32_t>(entries.size()));
    for (const Entry& entry : entries) {
        reply->writeString16(entry.name);
        reply->writeInt32(entry.pid);
        reply->writeString8(processNameOf(entry.pid));
    }
    for (const Entry& entry : entries) {
        reply->writeInt32(static_cast<int32_t>(entry.uid));
        reply->writeString8(executableOf(entry.pid));
    }
    return NO_ERROR;
}

status_t ServiceManager::waitForService(const Parcel& data, Parcel* reply) {
    String16 name;
    int socket = -1;
    if (!readNameAndSocket(data, &name, &socket)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    sp<IBinder> present;
    Caller caller;
    const status_t status = addWaiter(name, socket, caller, &present);
    reply->writeInt32(status);
    reply->writeStrongBinder(present);
    return NO_ERROR;
}

status_t ServiceManager::cancelWait(const Parcel& data, Parcel* reply) {
    String16 name;
    if (!readHeaderAndName(data, &name) || !endsWith(data, 0)) {
        reply->writeInt32(BAD_VALUE);
        return NO_ERROR;
    }
    Caller caller;
    std::vector<sp<IBinder>> unlink;
    size_t cancelled = 0;
    {
        std::lock_guard<std::mutex> lock(mLock);
        const uint64_t key = findRegistrantLocked(caller, &unlink);
        auto gone = std::stable_partition(mWaiters.begin(), mWaiters.end(), [&](const Waiter& w) {
            return key == 0 || w.registrant != key || !(w.name == name) || !w.socket.hungUp();
        });
        cancelled = static_cast<size_t>(mWaiters.end() - gone);
        mWaiters.erase(gone, mWaiters.end());
        // Uncounted one by one: the record goes with the last.
        for (size_t i = 0; i < cancelled; ++i) uncountLocked(key, &Registrant::waiters);
    }
    unlinkFrom(&unlink);
    reply->writeInt32(cancelled > 0 ? NO_ERROR : NAME_NOT_FOUND);
    return NO_ERROR;
}

status_t ServiceManager::registerService(const String16& name, const sp<IBinder>& binder,
                                         Caller& caller) {
    const status_t watched = watch(binder);
    if (watched != NO_ERROR) return watched;
    std::vector<sp<IBinder>> unlink;
    std::vector<Waiter> waiters;
    status_t status;
    {
        std::lock_guard<std::mutex> lock(mLock);
        uint64_t key = 0;
        status = enrolLocked(caller, &key, &unlink);
        if (status == NO_ERROR) status = admitServiceLocked(name, key);
        // A death between linking and here found no entry to drop.
        if (status == NO_ERROR && !binder->isBinderAlive()) status = DEAD_OBJECT;
        if (status == NO_ERROR) {
            auto [entry, added] = mServices.try_emplace(name);
            const uint64_t previous = entry->second.registrant;
            if (!added) unlink.push_back(std::move(entry->second.binder));
            entry->second = Service{binder, key, caller.pid};
            // Counted before the previous holder is uncounted: that may be `key` itself.
            ++mRegistrants.at(key).services;
            if (!added) uncountLocked(previous, &Registrant::services);
            waiters = takeWaitersLocked(name);
        } else if (key != 0) {
            uncountLocked(key, nullptr);
        }
    }
    if (status != NO_ERROR) unlink.push_back(binder);
    unlinkFrom(&unlink);
    if (status != NO_ERROR) return status;
    ALOGI("added %s for pid %d", String8(name).string(), caller.pid);
    wakeWaiters(waiters);
    return NO_ERROR;
}

status_t ServiceManager::admitServiceLocked(const String16& name, uint64_t registrant) const {
    const pid_t caller = mRegistrants.at(registrant).pid;
    auto existing = mServices.find(name);
    if (existing != mServices.end()) {
        const Service& holder = existing->second;
        if (holder.registrant == registrant) return NO_ERROR;  // replaces its own: counts stay
        if (holder.binder->isBinderAlive() && !registrantExitedLocked(holder.registrant)) {
            ALOGW("refused %s to pid %d: held by pid %d", String8(name).string(), caller,
                  holder.owner);
            return ALREADY_EXISTS;
        }
    }
    if (withinLimitsLocked(registrant, &Registrant::services, kMaxServicesPerProcess,
                           kMaxServicesPerUser)) {
        return NO_ERROR;
    }
    ALOGW("refused %s to pid %d: too many registrations", String8(name).string(), caller);
    return NO_MEMORY;
}

status_t ServiceManager::addWaiter(const String16& name, int socket, Caller& caller,
                                   sp<IBinder>* present) {
    WakeSocket kept(fcntl(socket, F_DUPFD_CLOEXEC, 0));
    if (!kept.valid()) return NO_MEMORY;
    std::vector<sp<IBinder>> unlink;
    status_t status = NO_ERROR;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto found = mServices.find(name);
        if (found != mServices.end()) {
            *present = found->second.binder;
        } else {
            uint64_t key = 0;
            status = enrolLocked(caller, &key, &unlink);
            if (status == NO_ERROR &&
                !withinLimitsLocked(key, &Registrant::waiters, kMaxWaitersPerProcess,
                                    kMaxWaitersPerUser)) {
                ALOGW("refused a waiter for %s to pid %d: too many waiters", String8(name).string(),
                      caller.pid);
                status = NO_MEMORY;
            }
            if (status == NO_ERROR) {
                mWaiters.push_back(Waiter{name, std::move(kept), key, caller.pid});
                ++mRegistrants.at(key).waiters;
            } else if (key != 0) {
                uncountLocked(key, nullptr);
            }
        }
    }
    unlinkFrom(&unlink);
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
    for (const Waiter& waiter : taken) uncountLocked(waiter.registrant, &Registrant::waiters);
    return taken;
}

void ServiceManager::wakeWaiters(const std::vector<Waiter>& waiters) {
    for (const Waiter& waiter : waiters) {
        if (!waiter.socket.wake()) {
            ALOGW("could not tell pid %d that %s was added: %s", waiter.owner,
                  String8(waiter.name).string(), strerror(errno));
        }
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
                uncountLocked(entry->second.registrant, &Registrant::services);
                entry = mServices.erase(entry);
            } else {
                ++entry;
            }
        }
    }
    if (owner != 0) ALOGI("an object registered by pid %d died: dropped its registrations", owner);
}

// A registrant is recognised by its pid while that process lives: a live
// record with the caller's pid is the caller's. A record whose process
// exited is dropped on the way, whether or not the watcher got to it yet.
status_t ServiceManager::enrolLocked(Caller& caller, uint64_t* key,
                                     std::vector<sp<IBinder>>* unlink) {
    *key = findRegistrantLocked(caller, unlink);
    if (*key != 0) return NO_ERROR;
    if (caller.pidfd < 0 || hasExited(caller.pidfd)) return DEAD_OBJECT;
    if (!mExits.add(caller.pidfd, mNextKey)) {
        ALOGW("cannot watch pid %d: %s", caller.pid, strerror(errno));
        return NO_MEMORY;
    }
    *key = mNextKey++;
    mRegistrants.emplace(*key, Registrant{caller.pid, caller.uid, caller.pidfd});
    caller.pidfd = -1;
    return NO_ERROR;
}

uint64_t ServiceManager::findRegistrantLocked(const Caller& caller,
                                              std::vector<sp<IBinder>>* unlink) {
    if (caller.pidfd < 0 || hasExited(caller.pidfd)) return 0;
    for (auto record = mRegistrants.begin(); record != mRegistrants.end();) {
        const uint64_t key = (record++)->first;
        const Registrant& registrant = mRegistrants.at(key);
        if (registrant.pid != caller.pid) continue;
        if (!hasExited(registrant.pidfd)) return key;
        dropRegistrantLocked(key, unlink);
    }
    return 0;
}

bool ServiceManager::registrantExitedLocked(uint64_t key) const {
    auto record = mRegistrants.find(key);
    return record != mRegistrants.end() && hasExited(record->second.pidfd);
}

bool ServiceManager::withinLimitsLocked(uint64_t key, Counter counter, size_t perProcess,
                                        size_t perUser) const {
    const Registrant& registrant = mRegistrants.at(key);
    if (registrant.*counter >= perProcess) return false;
    size_t ofUser = 0;
    for (const auto& [other, record] : mRegistrants) {
        if (record.uid == registrant.uid) ofUser += record.*counter;
    }
    return ofUser < perUser;
}

void ServiceManager::uncountLocked(uint64_t key, Counter counter) {
    auto record = mRegistrants.find(key);
    if (record == mRegistrants.end()) return;
    Registrant& registrant = record->second;
    if (counter != nullptr) --(registrant.*counter);
    if (registrant.services == 0 && registrant.waiters == 0) forgetLocked(key);
}

void ServiceManager::forgetLocked(uint64_t key) {
    auto record = mRegistrants.find(key);
    mExits.remove(record->second.pidfd);
    close(record->second.pidfd);
    mRegistrants.erase(record);
}

void ServiceManager::dropRegistrantLocked(uint64_t key, std::vector<sp<IBinder>>* unlink) {
    for (auto entry = mServices.begin(); entry != mServices.end();) {
        if (entry->second.registrant == key) {
            unlink->push_back(std::move(entry->second.binder));
            entry = mServices.erase(entry);
        } else {
            ++entry;
        }
    }
    mWaiters.erase(std::remove_if(mWaiters.begin(), mWaiters.end(),
                                  [&](const Waiter& w) { return w.registrant == key; }),
                   mWaiters.end());
    forgetLocked(key);
}

// Each registration linked its object once; each is unlinked once.
void ServiceManager::unlinkFrom(std::vector<sp<IBinder>>* objects) {
    for (const sp<IBinder>& object : *objects) object->unlinkToDeath(this);
    objects->clear();
}

void ServiceManager::registrantExited(uint64_t key) {
    std::vector<sp<IBinder>> unlink;
    pid_t pid = 0;
    size_t services = 0;
    size_t waiters = 0;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto record = mRegistrants.find(key);
        if (record == mRegistrants.end()) return;
        pid = record->second.pid;
        services = record->second.services;
        waiters = record->second.waiters;
        dropRegistrantLocked(key, &unlink);
    }
    ALOGI("pid %d died: dropped its %zu registrations and %zu waiters", pid, services, waiters);
    unlinkFrom(&unlink);
}

}  // namespace android

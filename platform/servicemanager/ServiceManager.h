#pragma once

#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <sys/types.h>

#include <map>
#include <mutex>
#include <vector>

#include "ExitWatcher.h"

namespace android {

// The daemon's registry: the context object of one binder context.
//
// Everything it reads comes from other processes and is checked before use;
// a request that does not have exactly the expected shape is answered with
// BAD_VALUE. A registration or a waiter belongs to the process that made it,
// its registrant, known by a pidfd: a pid number, once reused, would name
// another process. A registration ends when its registrant or its object's
// process dies, whichever comes first. A waiter holds the socket its
// getService() call sleeps on; it ends when its name is registered (a byte
// written wakes the call), when its registrant dies, or when the registrant
// cancels it after closing its own end. Memory and descriptors are bounded by
// the limits below, per registrant and per user.
//
// Made by main() and kept by the transport as the context object for the
// daemon's life. Requests and object deaths arrive on pool threads,
// registrants' exits on the ExitWatcher's thread. mLock guards the registry;
// nothing that may reach another process is done under it (closing a
// waiter's socket never blocks, and is).
class ServiceManager : public BBinder, public IBinder::DeathRecipient {
  public:
    static constexpr size_t kMaxServicesPerProcess = 512;
    static constexpr size_t kMaxServicesPerUser = 4096;
    static constexpr size_t kMaxWaitersPerProcess = 64;
    static constexpr size_t kMaxWaitersPerUser = 4096;
    // The name under which the service manager lists itself.
    static constexpr const char* kSelfName = "manager";

    ServiceManager();

    const String16& getInterfaceDescriptor() const override;
    void binderDied(const wp<IBinder>& who) override;

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override;

  private:
    // A process holding registrations or waiters; forgotten, and its pidfd
    // closed, when it holds none. Known by a key that is never reused.
    struct Registrant {
        pid_t pid = 0;
        uid_t uid = 0;
        int pidfd = -1;
        size_t services = 0;
        size_t waiters = 0;
    };
    // The process making the request being served.
    struct Caller {
        Caller();
        ~Caller();
        Caller(const Caller&) = delete;
        Caller& operator=(const Caller&) = delete;
        pid_t pid = 0;
        uid_t uid = 0;
        int pidfd = -1;  // -1 once it exited
    };
    struct Service {
        sp<IBinder> binder;
        uint64_t registrant = 0;  // 0 for the service manager's own entry
        pid_t owner = 0;
    };
    // The service manager's end of a waiting call's socket; closed with it.
    class WakeSocket {
      public:
        explicit WakeSocket(int fd) : mFd(fd) {}
        ~WakeSocket();
        WakeSocket(WakeSocket&& other) noexcept;
        WakeSocket& operator=(WakeSocket&& other) noexcept;
        bool valid() const { return mFd >= 0; }
        // Wakes the call; false when it can no longer be told.
        bool wake() const;
        // True once the waiting process closed its end.
        bool hungUp() const;

      private:
        int mFd;
    };
    // A getService() call of another process, waiting for a name to appear.
    struct Waiter {
        String16 name;
        WakeSocket socket;
        uint64_t registrant = 0;
        pid_t owner = 0;
    };
    using Counter = size_t Registrant::*;

    status_t checkService(const Parcel& data, Parcel* reply);
    status_t addService(const Parcel& data, Parcel* reply);
    status_t listServices(const Parcel& data, Parcel* reply);
    status_t waitForService(const Parcel& data, Parcel* reply);
    status_t cancelWait(const Parcel& data, Parcel* reply);

    status_t registerService(const String16& name, const sp<IBinder>& binder, Caller& caller);
    // NO_ERROR, or why another registration of `name` by `registrant` is refused.
    status_t admitServiceLocked(const String16& name, uint64_t registrant) const;
    // Keeps a copy of `socket` for a waiter, unless `name` is registered already.
    status_t addWaiter(const String16& name, int socket, Caller& caller, sp<IBinder>* present);
    sp<IBinder> findService(const String16& name) const;
    // Links this registry to `binder`'s death: DEAD_OBJECT when it is dead already.
    status_t watch(const sp<IBinder>& binder);
    // Takes the waiters of `name` out of the registry, to be woken outside the lock.
    std::vector<Waiter> takeWaitersLocked(const String16& name);
    static void wakeWaiters(const std::vector<Waiter>& waiters);

    // The caller's registrant record in *key, made when it has none:
    // DEAD_OBJECT when the caller exited. Takes the caller's pidfd for a new
    // record. Exited registrants met on the way are dropped, their objects
    // added to *unlink.
    status_t enrolLocked(Caller& caller, uint64_t* key, std::vector<sp<IBinder>>* unlink);
    // The caller's record, or 0.
    uint64_t findRegistrantLocked(const Caller& caller, std::vector<sp<IBinder>>* unlink);
    bool registrantExitedLocked(uint64_t key) const;
    // True when `key`'s registrant and its user have room for one more.
    bool withinLimitsLocked(uint64_t key, Counter counter, size_t perProcess, size_t perUser) const;
    // One registration or waiter of `key` less; forgets it when none is left.
    void uncountLocked(uint64_t key, Counter counter);
    void forgetLocked(uint64_t key);
    // Drops everything the registrant holds: the objects, to be unlinked
    // from and released outside the lock, go to *unlink; its waiters close.
    void dropRegistrantLocked(uint64_t key, std::vector<sp<IBinder>>* unlink);
    void unlinkFrom(std::vector<sp<IBinder>>* objects);
    // ExitWatcher's thread.
    void registrantExited(uint64_t key);

    mutable std::mutex mLock;
    std::map<String16, Service> mServices;
    std::vector<Waiter> mWaiters;
    std::map<uint64_t, Registrant> mRegistrants;
    uint64_t mNextKey = 1;
    // Last: stopped before the registry it reports to goes.
    ExitWatcher mExits;
};

}  // namespace android

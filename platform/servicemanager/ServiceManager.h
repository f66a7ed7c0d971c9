#pragma once

#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <sys/types.h>

#include <map>
#include <mutex>
#include <vector>

namespace android {

// The daemon's registry: the context object of one binder context.
//
// Everything it reads comes from other processes and is checked before use;
// a request that does not have exactly the expected shape is answered with
// BAD_VALUE. Memory is bounded by the limits below, per process and in total.
class ServiceManager : public BBinder, public IBinder::DeathRecipient {
  public:
    static constexpr size_t kMaxServices = 4096;
    static constexpr size_t kMaxServicesPerProcess = 512;
    static constexpr size_t kMaxWaiters = 4096;
    static constexpr size_t kMaxWaitersPerProcess = 64;
    // The name under which the service manager lists itself.
    static constexpr const char* kSelfName = "manager";

    ServiceManager();

    const String16& getInterfaceDescriptor() const override;
    void binderDied(const wp<IBinder>& who) override;

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override;

  private:
    struct Service {
        sp<IBinder> binder;
        pid_t owner = 0;
    };
    // A getService() call of another process, waiting for a name to appear.
    struct Waiter {
        String16 name;
        sp<IBinder> callback;
        pid_t owner = 0;
    };

    status_t checkService(const Parcel& data, Parcel* reply);
    status_t addService(const Parcel& data, Parcel* reply);
    status_t listServices(const Parcel& data, Parcel* reply);
    status_t waitForService(const Parcel& data, Parcel* reply);
    status_t cancelWait(const Parcel& data, Parcel* reply);

    status_t registerService(const String16& name, const sp<IBinder>& binder, pid_t caller);
    // NO_ERROR, or why another registration of `name` by `caller` is refused.
    status_t admitServiceLocked(const String16& name, pid_t caller) const;
    status_t addWaiter(const String16& name, const sp<IBinder>& callback, pid_t caller,
                       sp<IBinder>* present);
    sp<IBinder> findService(const String16& name) const;
    // Links this registry to `binder`'s death: DEAD_OBJECT when it is dead already.
    status_t watch(const sp<IBinder>& binder);
    // Takes the waiters of `name` out of the registry, to be told outside the lock.
    std::vector<Waiter> takeWaitersLocked(const String16& name);
    void notifyWaiters(const std::vector<Waiter>& waiters, const sp<IBinder>& binder);
    size_t countServicesLocked(pid_t owner) const;
    size_t countWaitersLocked(pid_t owner) const;

    mutable std::mutex mLock;
    std::map<String16, Service> mServices;
    std::vector<Waiter> mWaiters;
};

}  // namespace android

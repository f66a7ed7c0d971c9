#pragma once

#include <binder/IServiceManager.h>

namespace android {

namespace tvbinder {
class ProcessRegistrations;
class ServiceManagerWaiter;
}  // namespace tvbinder

// The client side of the service manager: turns each operation into one
// transaction on the context object and checks every reply it reads. The
// names it registers are kept by ProcessRegistrations, and getService() waits
// on against the successor of a service manager that died while it waited.
class BpServiceManager : public BpInterface<IServiceManager> {
  public:
    // `remote` may be null when no service manager answered: every operation
    // then fails without trying.
    explicit BpServiceManager(const sp<IBinder>& remote);

    sp<IBinder> getService(const String16& name) const override;
    sp<IBinder> checkService(const String16& name) const override;
    status_t addService(const String16& name, const sp<IBinder>& service,
                        bool allowIsolated = false) override;
    Vector<String16> listServices() override;
    std::vector<Registration> listRegistrations() override;

    // The timeout is one setting for the whole process, shared by every
    // BpServiceManager, so that it survives reconnecting to a new daemon.
    void setGetServiceTimeout(std::chrono::milliseconds timeout) override;
    std::chrono::milliseconds getServiceTimeout() const override;

    // True while the service manager behind this proxy can still answer.
    bool isAlive() const;

  private:
    friend class tvbinder::ProcessRegistrations;

    // Sends `request` and reads the status that starts every reply.
    [[nodiscard]] status_t call(uint32_t code, const Parcel& request, Parcel* reply) const;
    [[nodiscard]] status_t requestAddService(const String16& name, const sp<IBinder>& service,
                                             bool allowIsolated) const;
    // Hands the service manager `waiter`'s socket, to be woken when `name`
    // appears; the object when it is there already.
    [[nodiscard]] status_t registerWaiter(const String16& name,
                                          tvbinder::ServiceManagerWaiter& waiter,
                                          sp<IBinder>* present) const;
    // Drops this process's waiters for `name` whose sockets it closed.
    void cancelWaiters(const String16& name) const;
    // Waits for `name` here until `deadline`: the object, or null; *lost when
    // this service manager would not keep the wait or dropped it (it died).
    sp<IBinder> waitOn(const String16& name, std::chrono::steady_clock::time_point deadline,
                       bool* lost) const;
    // The service manager to wait on after this one stopped answering: its
    // successor, or null when it still answers or none follows.
    sp<const BpServiceManager> successor() const;
};

namespace tvbinder {

// The service manager of this process's context, connecting (and starting
// the daemon) when there is none or it died; a new one first gets back the
// names this process registered with its predecessors.
sp<BpServiceManager> connectedServiceManager();

}  // namespace tvbinder

}  // namespace android

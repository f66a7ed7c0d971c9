#pragma once

#include <binder/Binder.h>

#include <list>
#include <string>

#include "IService.h"
#include "Protocol.h"
#include "coupler/binder/service/NotifierManager.h"
#include "coupler/binder/service/SubServiceEvents.h"
#include "coupler/binder/sub-service/SubServiceProxyManager.h"
#include "tv_sp.h"
#include "utils/Mutex.h"
#include "utils/Semaphore.h"

namespace tavrin_binder {

// The binder object of one published service: registered with the service
// manager under the service's name, it turns every transaction of its
// clients and sub-services into calls on the application's IService. It
// holds the clients' notifiers (the service's INotifier) and the registry of
// the service's sub-services, with the requests waiting for a sub-service
// that has not registered yet.
//
// Made by Announcer_Binder, which keeps it for the life of the process once
// the service manager took it, so that the INotifier given to the service
// never dangles (a carrier the service manager refused goes at once). onTransact runs on
// binder threads, several at once, and calls the service without any lock
// of the carrier held; mWaitersLock guards the list of waiters only. The
// service hears of sub-services coming and going through mSubServiceEvents.
class ServiceCarrier : public android::BBinder, public SubServiceProxyManager::Removeable {
  public:
    ServiceCarrier(tavrin::tv_sp<tavrin::IService>& service, tavrin::Protocol& protocol);

    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
    void onSubServiceRemoved(std::string name,
                             const tavrin::tv_sp<ISubServiceProxy>& record) override;
    // Its status, or a monitor's records (CarrierDump).
    android::status_t dump(int fd, const android::Vector<android::String16>& args) override;

  protected:
    ~ServiceCarrier() override;

  private:
    android::status_t dispatch(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                               uint32_t flags);
    void addNotifier(const android::Parcel& data, android::Parcel* reply, int line);
    void removeNotifier(int line);
    void ipcCall(const android::Parcel& data, android::Parcel* reply);
    void getSubService(const android::Parcel& data, android::Parcel* reply);
    tavrin::tv_sp<ISubServiceProxy> awaitSubService(const std::string& name,
                                                    const android::Parcel& data);
    void subServiceIpcCall(const android::Parcel& data, android::Parcel* reply);
    void registerSubService(const android::Parcel& data, android::Parcel* reply);
    void addWaiter(tavrin::Semaphore* waiter);
    void removeWaiter(tavrin::Semaphore* waiter);
    void wakeWaiters();
    // {"kind":"service","pid","clients":[{"pid"}],"subServices":[{"name"}],"waiting"}
    std::string status();

    NotifierManager mNotifierManager;
    SubServiceProxyManager mSubServiceProxyManager;
    tavrin::Protocol mProtocol;  // read only
    std::list<tavrin::Semaphore*> mWaiters;
    tavrin::Mutex mWaitersLock;  // guards mWaiters
    SubServiceEvents mSubServiceEvents;
    const tavrin::tv_sp<tavrin::IService> mService;
};

}  // namespace tavrin_binder

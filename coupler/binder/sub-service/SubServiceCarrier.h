#pragma once

#include <binder/Binder.h>

#include <string>

#include "IMasterServiceProxy.h"
#include "ISubService.h"
#include "Protocol.h"
#include "SubServiceInfo.h"
#include "coupler/binder/service/NotifierManager.h"
#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

// The binder object that carries the process's one sub-service: registers it
// with its master (REGISTER_SUB_SERVICE), turns the transactions of clients
// (IPC_CALL) and of the master (MASTER_IPC_CALL) into calls on the
// application's ISubService, lets the sub-service call its master
// (IMasterServiceProxy) and notify its clients (its NotifierManager). When
// the master dies, the process ends.
//
// Made on the first sub-service publish and never destroyed: it holds a
// strong reference to itself, since remote references come and go and
// binder threads use it until the process ends. onTransact runs on binder
// threads, several at once, without any lock of the carrier; active and
// ipcCall may run on any threads at once (mLock serialises activation,
// mMasterLock guards the master's binder).
class SubServiceCarrier : public android::BBinder, public tavrin::IMasterServiceProxy {
  public:
    // The process's carrier, made from the first call's arguments; later
    // calls get the same carrier whatever they pass.
    static SubServiceCarrier* self(tavrin::SubServiceInfo& info,
                                   tavrin::tv_sp<tavrin::ISubService>& service,
                                   tavrin::Protocol& clientProtocol,
                                   tavrin::Protocol& masterProtocol);

    // Registers with the master; true when registered, now or before.
    bool active();
    tavrin::tv_sp<tavrin::IPCClass> ipcCall(tavrin::IPCClass& argument) override;
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
    // Its status, or a monitor's records (CarrierDump).
    android::status_t dump(int fd, const android::Vector<android::String16>& args) override;

    class MasterServiceDeathRecipient;

  protected:
    ~SubServiceCarrier() override;

  private:
    SubServiceCarrier(tavrin::SubServiceInfo& info, tavrin::tv_sp<tavrin::ISubService>& service,
                      tavrin::Protocol& clientProtocol, tavrin::Protocol& masterProtocol);
    android::status_t dispatch(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                               uint32_t flags);
    bool registerWith(const android::sp<android::IBinder>& master);
    android::sp<android::IBinder> currentMaster();
    void addNotifier(const android::Parcel& data, android::Parcel* reply);
    void clientCall(const android::Parcel& data, android::Parcel* reply);
    void masterCall(const android::Parcel& data, android::Parcel* reply);
    // {"kind":"sub-service","pid","name","master","clients":[{"pid"}]}
    std::string status();
    // Ends the process: a sub-service does not outlive its master.
    [[noreturn]] void masterDied();

    const std::string mSubServiceName;
    const std::string mMasterName;
    NotifierManager mNotifierManager;
    tavrin::Protocol mClientProtocol;  // read only
    tavrin::Protocol mMasterProtocol;  // read only
    tavrin::Mutex mMasterLock;         // guards mMaster
    android::sp<android::IBinder> mMaster;
    const tavrin::tv_sp<tavrin::ISubService> mService;
    android::sp<MasterServiceDeathRecipient> mDeathRecipient;
    tavrin::Mutex mLock;  // serialises active(); guards mActive
    bool mActive = false;
};

class SubServiceCarrier::MasterServiceDeathRecipient : public android::IBinder::DeathRecipient {
  public:
    explicit MasterServiceDeathRecipient(SubServiceCarrier* carrier) : mCarrier(carrier) {}
    void binderDied(const android::wp<android::IBinder>& who) override;

  private:
    SubServiceCarrier* const mCarrier;  // lives as long as the process
};

}  // namespace tavrin_binder

#pragma once

#include <binder/Binder.h>

#include <condition_variable>
#include <memory>
#include <mutex>
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
// ipcCall may run on any threads at once (one registration at a time, the
// others wait for its outcome; mMasterLock guards the master's binder). No
// lock is held while the sub-service is called.
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
    // False when the carrier is active already; otherwise it is registering
    // until endActivation.
    bool startActivation();
    void endActivation(bool registered);
    // REGISTER_SUB_SERVICE; false when refused. *configured tells whether
    // the master sent a configuration (*config, null when unreadable).
    bool registerWith(const android::sp<android::IBinder>& master, bool* configured,
                      std::unique_ptr<tavrin::IPCClass>* config);
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
    enum class Activation { INACTIVE, REGISTERING, ACTIVE };
    std::mutex mActivationLock;  // guards mActivation
    std::condition_variable mActivationChanged;
    Activation mActivation = Activation::INACTIVE;
};

class SubServiceCarrier::MasterServiceDeathRecipient : public android::IBinder::DeathRecipient {
  public:
    explicit MasterServiceDeathRecipient(SubServiceCarrier* carrier) : mCarrier(carrier) {}
    void binderDied(const android::wp<android::IBinder>& who) override;

  private:
    SubServiceCarrier* const mCarrier;  // lives as long as the process
};

}  // namespace tavrin_binder

#include "coupler/binder/sub-service/SubServiceCarrier.h"

#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

#include "Log/AutoTrace.h"
#include "coupler/binder/CarrierRequests.h"
#include "coupler/binder/ResultFlag.h"
#include "coupler/binder/monitor/CarrierDump.h"
#include "coupler/binder/monitor/JsonText.h"
#include "coupler/binder/monitor/MonitorHooks.h"
#include "coupler/binder/service/ServiceCarrierCode.h"
#include "coupler/binder/sub-service/SubServiceCarrierCode.h"
#include "protocol/UniversalSerialization.h"
#include "utils/Assert.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][SubServiceCarrier]";

void writeName(android::Parcel& request, const std::string& name) {
    if (request.writeCString(name.c_str()) != 0) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "writeCString fail.");
    }
}

}  // namespace

SubServiceCarrier* SubServiceCarrier::self(tavrin::SubServiceInfo& info,
                                           tavrin::tv_sp<tavrin::ISubService>& service,
                                           tavrin::Protocol& clientProtocol,
                                           tavrin::Protocol& masterProtocol) {
    static SubServiceCarrier* const carrier = [&] {
        auto* made = new SubServiceCarrier(info, service, clientProtocol, masterProtocol);
        made->incStrong(made);  // never dropped: reference counting must not destroy it
        return made;
    }();
    return carrier;
}

SubServiceCarrier::SubServiceCarrier(tavrin::SubServiceInfo& info,
                                     tavrin::tv_sp<tavrin::ISubService>& service,
                                     tavrin::Protocol& clientProtocol,
                                     tavrin::Protocol& masterProtocol)
    : mSubServiceName(info.subServiceName),
      mMasterName(info.serviceName),
      mClientProtocol(clientProtocol),
      mMasterProtocol(masterProtocol),
      mService(service),
      mDeathRecipient(new MasterServiceDeathRecipient(this)) {
    AutoTrace trace("[Tavrin]", "SubServiceCarrier", "SubServiceCarrier", false);
    mService->setNotifier(&mNotifierManager);
    mService->setMasterServiceProxy(this);
}

SubServiceCarrier::~SubServiceCarrier() = default;

bool SubServiceCarrier::active() {
    AutoTrace trace("[Tavrin]", "SubServiceCarrier", "active", false);
    if (!startActivation()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "sub service already active,[%s]",
                            mSubServiceName.c_str());
        return true;
    }
    android::sp<android::IBinder> master =
        android::defaultServiceManager()->getService(android::String16(mMasterName.c_str()));
    {
        tavrin::AutoLock holdMaster(mMasterLock);
        mMaster = master;
    }
    if (master == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "ServiceManager have no service named [%s]",
                            mMasterName.c_str());
        endActivation(false);
        return false;
    }
    std::unique_ptr<tavrin::IPCClass> config;
    bool configured = false;
    const bool registered = registerWith(master, &configured, &config);
    endActivation(registered);
    if (!registered) return false;
    // Told once the carrier counts as active and without any lock held: the
    // sub-service may publish again from here.
    if (configured) mService->onConfig(config.get());
    // A master that died before the watch was set would never be noticed.
    if (master->linkToDeath(mDeathRecipient, nullptr, 0) == android::DEAD_OBJECT) masterDied();
    return true;
}

bool SubServiceCarrier::startActivation() {
    std::unique_lock<std::mutex> hold(mActivationLock);
    // Another publish is registering: its outcome decides what this one does.
    mActivationChanged.wait(hold, [this] { return mActivation != Activation::REGISTERING; });
    if (mActivation == Activation::ACTIVE) return false;
    mActivation = Activation::REGISTERING;
    return true;
}

void SubServiceCarrier::endActivation(bool registered) {
    {
        std::lock_guard<std::mutex> hold(mActivationLock);
        mActivation = registered ? Activation::ACTIVE : Activation::INACTIVE;
    }
    mActivationChanged.notify_all();
}

bool SubServiceCarrier::registerWith(const android::sp<android::IBinder>& master, bool* configured,
                                     std::unique_ptr<tavrin::IPCClass>* config) {
    android::Parcel request;
    android::Parcel reply;
    writeName(request, mSubServiceName);
    request.writeStrongBinder(this);
    master->transact(ServiceCarrierCode::REGISTER_SUB_SERVICE, request, &reply, 0);
    if (reply.readInt32() != 0) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "registered fail sub_service[%s] service[%s]", mSubServiceName.c_str(),
                            mMasterName.c_str());
        return false;
    }
    *configured = reply.readInt32() == 1;
    if (*configured) {
        config->reset(UniversalSerialization::readValue(mMasterProtocol, reply));
    } else {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "master servcie is not configured!!!");
    }
    return true;
}

android::sp<android::IBinder> SubServiceCarrier::currentMaster() {
    tavrin::AutoLock hold(mMasterLock);
    return mMaster;
}

tavrin::tv_sp<tavrin::IPCClass> SubServiceCarrier::ipcCall(tavrin::IPCClass& argument) {
    AutoTrace trace("[Tavrin]", "SubServiceCarrier", "ipcCall", false);
    android::sp<android::IBinder> master = currentMaster();
    if (master == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "master service not connected,[%s]",
                            mMasterName.c_str());
        return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    }
    android::Parcel request;
    android::Parcel reply;
    writeName(request, mSubServiceName);
    UniversalSerialization::writeValue(argument, request);
    master->transact(ServiceCarrierCode::SUB_SERVICE_IPC_CALL, request, &reply, 0);
    return readResult(mMasterProtocol, reply);
}

android::status_t SubServiceCarrier::onTransact(uint32_t code, const android::Parcel& data,
                                                android::Parcel* reply, uint32_t flags) {
    MonitoredCall monitored(this, MonitoredCall::Carrier::kSubService, code, data);
    return withReply(reply, [&](android::Parcel* answer) {
        return monitored.finish(dispatch(code, data, answer, flags), *answer);
    });
}

android::status_t SubServiceCarrier::dump(int fd, const android::Vector<android::String16>& args) {
    return CarrierDump::answer(fd, args, {this, &mNotifierManager}, [this] { return status(); });
}

std::string SubServiceCarrier::status() {
    std::string text = "{\"kind\":\"sub-service\",\"pid\":" + std::to_string(getpid());
    text += ",\"name\":" + jsonQuoted(mSubServiceName);
    text += ",\"master\":" + jsonQuoted(mMasterName);
    return text + ",\"clients\":" + jsonPidObjects(mNotifierManager.clientPids()) + "}";
}

android::status_t SubServiceCarrier::dispatch(uint32_t code, const android::Parcel& data,
                                              android::Parcel* reply, uint32_t flags) {
    switch (code) {
        case SubServiceCarrierCode::ADD_NOTIFIER:
            addNotifier(data, reply);
            return android::NO_ERROR;
        case SubServiceCarrierCode::IPC_CALL:
            clientCall(data, reply);
            return android::NO_ERROR;
        case SubServiceCarrierCode::MASTER_IPC_CALL:
            masterCall(data, reply);
            return android::NO_ERROR;
        default:
            return android::BBinder::onTransact(code, data, reply, flags);
    }
}

void SubServiceCarrier::addNotifier(const android::Parcel& data, android::Parcel* reply) {
    android::IPCThreadState* ipc_thread_state = android::IPCThreadState::self();
    tavrin::assertOrAbort(ipc_thread_state != nullptr, "ipc_thread_state!=NULL",
                          "coupler/binder/sub-service/SubServiceCarrier", 74,
                          "virtual status_t tavrin_binder::SubServiceCarrier::onTransact(uint32_t, "
                          "const android::Parcel&, android::Parcel*, uint32_t)");
    fileNotifier(mNotifierManager, ipc_thread_state->getCallingPid(), data, reply, mClientProtocol,
                 tavrin::tv_sp<tavrin::IService>(), kLogTag);
}

void SubServiceCarrier::clientCall(const android::Parcel& data, android::Parcel* reply) {
    tavrin::ClientInfo client;
    UniversalSerialization::readRecord(client, data);
    answerAction(mClientProtocol, data, reply, kLogTag,
                 "action was not processed!!!:action invaild",
                 [&](tavrin::IPCClass* action) { return mService->onAction(action, client); });
}

void SubServiceCarrier::masterCall(const android::Parcel& data, android::Parcel* reply) {
    answerAction(mMasterProtocol, data, reply, kLogTag,
                 "master service action was not processed!!!:action invaild",
                 [&](tavrin::IPCClass* action) { return mService->onMasterAction(action); });
}

void SubServiceCarrier::masterDied() {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "controoler died!!!,sub service[%s]",
                        mSubServiceName.c_str());
    // Binder threads may be inside the sub-service: no destructor may run.
    _exit(EXIT_FAILURE);
}

void SubServiceCarrier::MasterServiceDeathRecipient::binderDied(
    const android::wp<android::IBinder>& /*who*/) {
    AutoTrace trace("[Tavrin]", "SubServiceCarrier", "binderDied", false);
    mCarrier->masterDied();
}

}  // namespace tavrin_binder

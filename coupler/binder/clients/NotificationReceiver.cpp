#include "coupler/binder/clients/NotificationReceiver.h"

#include <android/log.h>

#include <memory>

#include "coupler/binder/ResultFlag.h"
#include "coupler/binder/clients/ClientsManager.h"
#include "protocol/UniversalSerialization.h"
#include "utils/AutoLock.h"

namespace tavrin_binder {

NotificationReceiver::NotificationReceiver(const char* logTag,
                                           const tavrin::tv_sp<ClientsManager>& clients,
                                           tavrin::Protocol& protocol)
    : mLogTag(logTag), mProtocol(protocol), mClients(clients) {}

NotificationReceiver::~NotificationReceiver() = default;

void NotificationReceiver::detach() {
    tavrin::tv_sp<ClientsManager> released;  // dropped after the lock
    tavrin::AutoLock hold(mLock);
    std::swap(released, mClients);
}

tavrin::tv_sp<ClientsManager> NotificationReceiver::attachedClients() {
    tavrin::AutoLock hold(mLock);
    return mClients;
}

android::status_t NotificationReceiver::onTransact(uint32_t /*code*/, const android::Parcel& data,
                                                   android::Parcel* reply, uint32_t /*flags*/) {
    tavrin::tv_sp<ClientsManager> clients = attachedClients();
    if (clients.isNull()) return android::NO_ERROR;
    tavrin::ClientInfo client;
    UniversalSerialization::readRecord(client, data);
    const int32_t wantReply = data.readInt32();
    std::unique_ptr<tavrin::IPCClass> value(UniversalSerialization::readValue(mProtocol, data));
    if (value == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, mLogTag,
                            "notify was not processed!!!,class invaild");
        return android::NO_ERROR;
    }
    if (wantReply == 0) {
        clients->onNotify(client, *value);
        return android::NO_ERROR;
    }
    tavrin::tv_sp<tavrin::IPCClass> answer = clients->onNotifyEx(client, *value);
    if (reply != nullptr) writeResult(answer, *reply);
    return android::NO_ERROR;
}

}  // namespace tavrin_binder

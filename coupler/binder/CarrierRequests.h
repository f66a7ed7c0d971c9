#pragma once

#include <android/log.h>
#include <binder/Parcel.h>

#include <memory>

#include "IService.h"
#include "Protocol.h"
#include "coupler/binder/ResultFlag.h"
#include "coupler/binder/service/NotifierManager.h"
#include "protocol/UniversalSerialization.h"
#include "tv_sp.h"

// What a service's carrier and a sub-service's carrier answer alike.
namespace tavrin_binder {

// Every request is answered in its reply; one sent one-way gets a reply
// that nobody reads.
template <typename Dispatch>
android::status_t withReply(android::Parcel* reply, Dispatch dispatch) {
    if (reply != nullptr) return dispatch(reply);
    android::Parcel discarded;
    return dispatch(&discarded);
}

// ADD_NOTIFIER from process `pid`: files the notifier binder it carries
// (int32 0), or refuses a request without one (int32 -1).
void fileNotifier(NotifierManager& notifiers, int pid, const android::Parcel& data,
                  android::Parcel* reply, tavrin::Protocol& protocol,
                  tavrin::tv_sp<tavrin::IService> service, const char* logTag);

// Reads an action with `protocol`, replies with the result of
// `handle(action)` and deletes the action. An action that cannot be read is
// logged as `failure`, nothing is written, and the result is false.
template <typename Handle>
bool answerAction(tavrin::Protocol& protocol, const android::Parcel& data, android::Parcel* reply,
                  const char* logTag, const char* failure, Handle handle) {
    std::unique_ptr<tavrin::IPCClass> action(UniversalSerialization::readValue(protocol, data));
    if (action == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, logTag, "%s", failure);
        return false;
    }
    tavrin::tv_sp<tavrin::IPCClass> result = handle(action.get());
    action.reset();
    writeResult(result, *reply);
    return true;
}

}  // namespace tavrin_binder

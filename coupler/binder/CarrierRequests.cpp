#include "coupler/binder/CarrierRequests.h"

namespace tavrin_binder {

void fileNotifier(NotifierManager& notifiers, int pid, const android::Parcel& data,
                  android::Parcel* reply, tavrin::Protocol& protocol,
                  tavrin::tv_sp<tavrin::IService> service, const char* logTag) {
    android::sp<android::IBinder> binder = data.readStrongBinder();
    if (binder == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, logTag,
                            "add notifier failed:notifier is null,pid[%d]", pid);
        reply->writeInt32(-1);
        return;
    }
    notifiers.addNotifier(pid, binder, protocol, service);
    reply->writeInt32(0);
}

}  // namespace tavrin_binder

#include "ServiceManagerWaiter.h"

#include <binder/IServiceManager.h>

namespace android {
namespace tvbinder {

ServiceManagerWaiter::ServiceManagerWaiter(const String16& name) : mName(name) {}

sp<IBinder> ServiceManagerWaiter::waitUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mLock);
    mArrived.wait_until(lock, deadline, [this] { return mService != nullptr; });
    return mService;
}

status_t ServiceManagerWaiter::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                          uint32_t flags) {
    if (code != IServiceManager::SERVICE_REGISTERED_TRANSACTION) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    String16 name;
    if (data.readString16(&name) != NO_ERROR || !(name == mName)) return BAD_VALUE;
    sp<IBinder> service = data.readStrongBinder();
    if (service == nullptr || data.dataAvail() != 0 || data.objectsCount() != 1) return BAD_VALUE;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mService = std::move(service);
    }
    mArrived.notify_all();
    return NO_ERROR;
}

}  // namespace tvbinder
}  // namespace android

#include "coupler/binder/sub-service/SubServiceDeathLink.h"

namespace tavrin_binder {

SubServiceDeathLink::SubServiceDeathLink(ISubServiceProxy::DeathRecipient* listener)
    : mListener(listener) {}

void SubServiceDeathLink::subServiceDied(const std::string& name, uint64_t identity) {
    ISubServiceProxy::DeathRecipient* listener;
    {
        std::lock_guard<std::mutex> hold(mLock);
        listener = mListener;
        if (listener == nullptr) return;
        ++mDelivering;
    }
    listener->onSubServiceDied(name, identity);
    std::lock_guard<std::mutex> hold(mLock);
    if (--mDelivering == 0) mIdle.notify_all();
}

void SubServiceDeathLink::clear() {
    std::unique_lock<std::mutex> hold(mLock);
    mListener = nullptr;
    mIdle.wait(hold, [this] { return mDelivering == 0; });
}

}  // namespace tavrin_binder

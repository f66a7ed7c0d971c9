#include "coupler/binder/sub-service/SubServiceDeathLink.h"

#include "utils/AutoLock.h"

namespace tavrin_binder {

SubServiceDeathLink::SubServiceDeathLink(ISubServiceProxy::DeathRecipient* listener)
    : mListener(listener) {}

void SubServiceDeathLink::subServiceDied(const std::string& name, const ISubServiceProxy* proxy) {
    tavrin::AutoLock hold(mLock);
    if (mListener != nullptr) mListener->onSubServiceDied(name, proxy);
}

void SubServiceDeathLink::clear() {
    tavrin::AutoLock hold(mLock);
    mListener = nullptr;
}

}  // namespace tavrin_binder

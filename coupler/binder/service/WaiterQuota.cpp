#include "coupler/binder/service/WaiterQuota.h"

#include <binder/ProcessState.h>

#include <algorithm>

#include "utils/AutoLock.h"

namespace tavrin_binder {

WaiterQuota& WaiterQuota::self() {
    static WaiterQuota* const instance = new WaiterQuota();
    return *instance;
}

bool WaiterQuota::admit(pid_t caller) {
    const size_t limit =
        std::max<size_t>(1, android::ProcessState::self()->getThreadPoolMaxThreadCount() / 2);
    const size_t share = std::max<size_t>(1, limit / 2);
    tavrin::AutoLock hold(mLock);
    size_t& ofCaller = mWaitingOf[caller];
    if (mWaiting >= limit || ofCaller >= share) {
        if (ofCaller == 0) mWaitingOf.erase(caller);
        return false;
    }
    ++ofCaller;
    ++mWaiting;
    return true;
}

void WaiterQuota::release(pid_t caller) {
    tavrin::AutoLock hold(mLock);
    auto entry = mWaitingOf.find(caller);
    if (entry == mWaitingOf.end()) return;
    --mWaiting;
    if (--entry->second == 0) mWaitingOf.erase(entry);
}

}  // namespace tavrin_binder

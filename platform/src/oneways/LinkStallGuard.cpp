#include "oneways/LinkStallGuard.h"

#include <vector>

#include "base/Clock.h"
#include "peers/AcceptedConnections.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// How long a link may stay held by one thread that runs its one-ways.
constexpr int64_t kStallMs = 2;

}  // namespace

void LinkStallGuard::armTimer() {
    (void)mTimer.arm(kStallMs);
    mTimerArmed = true;
}

void LinkStallGuard::hold(const sp<AcceptedConnection>& link) {
    LockGuard guard(mLock);
    mHeld[link.get()] = {link, monotonicMs()};
    if (!mTimerArmed) armTimer();
}

bool LinkStallGuard::release(const sp<AcceptedConnection>& link) {
    LockGuard guard(mLock);
    return mHeld.erase(link.get()) > 0;
}

void LinkStallGuard::onEvent(uint32_t /*events*/) {
    mTimer.takeExpiry();
    std::vector<sp<AcceptedConnection>> stalled;
    {
        LockGuard guard(mLock);
        mTimerArmed = false;
        const int64_t now = monotonicMs();
        for (auto it = mHeld.begin(); it != mHeld.end();) {
            if (now - it->second.second >= kStallMs) {
                stalled.push_back(std::move(it->second.first));
                it = mHeld.erase(it);
            } else {
                ++it;
            }
        }
        if (!mHeld.empty()) armTimer();
    }
    mTimer.giveBack();
    for (const sp<AcceptedConnection>& link : stalled) mAccepted.rearm(link);
}

}  // namespace tvbinder
}  // namespace android

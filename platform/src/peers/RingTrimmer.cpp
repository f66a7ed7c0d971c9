#include "peers/RingTrimmer.h"

#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// Making a megabyte resident again costs far more than copying it: a ring is
// only trimmed one to two sweeps after the last large frame.
constexpr int64_t kSweepMs = 1000;

}  // namespace

void RingTrimmer::sweepLater(const wp<Connection>& connection) {
    // Without a pool no thread would take the timer: nothing is listed for good.
    if (!mPool.started()) return;
    LockGuard guard(mLock);
    mListed.push_back(connection);
    // Unarmed, the next listing tries again.
    if (!mTimerArmed) mTimerArmed = mTimer.arm(kSweepMs);
}

void RingTrimmer::onEvent(uint32_t /*events*/) {
    mTimer.takeExpiry();
    std::vector<wp<Connection>> due;
    {
        LockGuard guard(mLock);
        due.swap(mListed);
        mTimerArmed = false;
    }
    std::vector<wp<Connection>> again;
    for (const wp<Connection>& listed : due) {
        const sp<Connection> connection = listed.promote();
        if (connection != nullptr && connection->sweepSharedMemory()) again.push_back(listed);
    }
    {
        LockGuard guard(mLock);
        mListed.insert(mListed.end(), again.begin(), again.end());
        if (!mListed.empty() && !mTimerArmed) mTimerArmed = mTimer.arm(kSweepMs);
    }
    mTimer.giveBack();
}

}  // namespace tvbinder
}  // namespace android

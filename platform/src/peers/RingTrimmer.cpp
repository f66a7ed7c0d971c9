#include "peers/RingTrimmer.h"

#include <algorithm>

#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// Making a megabyte resident again costs far more than copying it: a ring is
// only trimmed one to two sweeps after the last large frame.
constexpr int64_t kSweepMs = 1000;

}  // namespace

void RingTrimmer::sweepLater(const wp<Connection>& connection) {
    std::vector<sp<Connection>> alive;
    LockGuard guard(mLock);
    // A process without a pool, or with its only threads busy, sweeps late
    // or never: what it lists meanwhile is bounded by the connections it has.
    if (mListed.size() >= mPruneAt) pruneClosed(&alive);
    mListed.push_back(connection);
    // Unarmed, the next listing tries again.
    if (!mTimerArmed) mTimerArmed = mTimer.arm(kSweepMs);
}

void RingTrimmer::pruneClosed(std::vector<sp<Connection>>* alive) {
    std::vector<wp<Connection>> kept;
    for (const wp<Connection>& listed : mListed) {
        sp<Connection> connection = listed.promote();
        if (connection == nullptr) continue;
        kept.push_back(listed);
        alive->push_back(std::move(connection));
    }
    mListed.swap(kept);
    mPruneAt = std::max(kFirstPrune, 2 * mListed.size());
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

#include "peers/RingTrimmer.h"

#include <errno.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// Making a megabyte resident again costs far more than copying it: a ring is
// only trimmed one to two sweeps after the last large frame.
constexpr time_t kSweepSeconds = 1;

}  // namespace

status_t RingTrimmer::init() {
    mTimer = ScopedFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!mTimer.valid()) return -errno;
    mPool.add(this, mTimer.get());
    return NO_ERROR;
}

void RingTrimmer::armTimer() {
    itimerspec period{};
    period.it_value.tv_sec = kSweepSeconds;
    // Unarmed, the next listing tries again.
    mTimerArmed = timerfd_settime(mTimer.get(), 0, &period, nullptr) == 0;
}

void RingTrimmer::sweepLater(const wp<Connection>& connection) {
    // Without a pool no thread would take the timer: nothing is listed for good.
    if (!mPool.started()) return;
    LockGuard guard(mLock);
    mListed.push_back(connection);
    if (!mTimerArmed) armTimer();
}

void RingTrimmer::onEvent(uint32_t /*events*/) {
    uint64_t expirations;
    ssize_t drained = read(mTimer.get(), &expirations, sizeof(expirations));
    (void)drained;
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
        if (!mListed.empty() && !mTimerArmed) armTimer();
    }
    mPool.rearm(this, mTimer.get());
}

}  // namespace tvbinder
}  // namespace android

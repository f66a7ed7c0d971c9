#include "threads/PoolTimer.h"

#include <errno.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

status_t PoolTimer::init() {
    mFd = ScopedFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!mFd.valid()) return -errno;
    mPool.add(&mOwner, mFd.get());
    return NO_ERROR;
}

bool PoolTimer::arm(int64_t delayMs) {
    itimerspec once{};
    once.it_value.tv_sec = static_cast<time_t>(delayMs / 1000);
    once.it_value.tv_nsec = static_cast<long>(delayMs % 1000) * 1000000;
    return timerfd_settime(mFd.get(), 0, &once, nullptr) == 0;
}

void PoolTimer::takeExpiry() {
    uint64_t expirations;
    ssize_t drained = read(mFd.get(), &expirations, sizeof(expirations));
    (void)drained;
}

void PoolTimer::giveBack() {
    mPool.rearm(&mOwner, mFd.get());
}

}  // namespace tvbinder
}  // namespace android
